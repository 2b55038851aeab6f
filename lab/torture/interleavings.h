// Flows that meet: each is paused at each of its requests, another one runs meanwhile, and then the
// answer comes.
//
// A case is "FLOW REQUEST OTHER": the answer to REQUEST of FLOW is held while OTHER runs to its
// end, or until it waits for a lock that FLOW holds; then the answer is released, both end, and the
// device is checked.
#pragma once

#include <string>
#include <vector>

#include "lab/torture/selection.h"

namespace torture {

struct InterleavingCounts {
  int interleavings = 0;
  int waits = 0;  // those in which OTHER waits for a lock that FLOW holds
  int findings = 0;
};

// Every case, in order.
[[nodiscard]] std::vector<std::string> InterleavingCases();

// Runs one case, says on standard output what is wrong, and counts it. Throws std::runtime_error
// when the lab does not work.
void RunInterleaving(const std::string& name, InterleavingCounts& counts);

}  // namespace torture
