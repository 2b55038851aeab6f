// Which cases of a torture run: all or a sample, shared among labs that run side by side.
#pragma once

#include <string>
#include <vector>

namespace torture {

struct Selection {
  unsigned long every = 1;  // every Kth case, always the same ones
  bool each_alike = false;  // those too of which one stands for many
  unsigned long share = 0;  // of `shares`
  unsigned long shares = 1;
  std::vector<std::string> flows = {};  // only these; all when empty

  [[nodiscard]] bool TakesFlow(const std::string& flow) const;
  // Both go by the name of a case. Of a sample that is `step` times as thin:
  [[nodiscard]] bool IsShared(const std::string& name) const;
  [[nodiscard]] bool IsSampled(const std::string& name, unsigned long step = 1) const;
  [[nodiscard]] bool Takes(const std::string& name) const {
    return IsShared(name) && IsSampled(name);
  }
};

}  // namespace torture
