// Which cases of a torture run: all or a sample, shared among labs that run side by side.
#pragma once

#include <string>
#include <vector>

namespace torture {

struct Selection {
  unsigned long every = 1;  // every Kth case, always the same ones
  unsigned long share = 0;  // of `shares`
  unsigned long shares = 1;
  std::vector<std::string> flows = {};  // only these; all when empty

  // `name` is the case's; its first word is its flow.
  [[nodiscard]] bool Includes(const std::string& name) const;
};

}  // namespace torture
