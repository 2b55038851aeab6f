// The words of script/torture, for the program that drives the labs and for the one in each of
// them.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "lab/torture/selection.h"

namespace torture {

struct Options {
  std::vector<std::string> kinds;        // all when empty
  unsigned long every = 0;               // 0: a kind's own sample
  Selection selection;                   // but for `every`
  bool all = false;                      // every case, or but for those that are alike
  std::optional<std::string> only;       // the case
  std::string build;                     // where the programs were built
  unsigned jobs = 1;                     // labs side by side
  std::string counts;                    // in a lab: the counts of each flow go to COUNTS.FLOW
  std::vector<std::string> for_the_lab;  // those words that say which cases run, and how

  [[nodiscard]] bool is_comparable() const { return every == 0 || all; }
};

// Nothing when the words make no sense.
std::optional<Options> ParseOptions(const std::vector<std::string>& words);

}  // namespace torture
