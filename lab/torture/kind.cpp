#include "lab/torture/kind.h"

#include <algorithm>
#include <array>

namespace torture {

const KindOfTorture* FindKind(const std::string& name) {
  using enum Count;
  static const std::array<KindOfTorture, 4> kinds = {{
      {"interleavings", 3, {kInterleavings, kWaits, kFindings}, MakeInterleavings},
      {"power_loss",
       12,
       {kFaults, kRunsAgain, kNotReached, kKnownLimits, kFindings},
       MakePowerLoss},
      {"system_calls",
       45,
       {kFaults, kKills, kRescues, kNotReached, kKnownLimits, kFindings},
       MakeSystemCalls},
      {"allocations",
       100,
       {kFaults, kOutOfMemory, kNotReached, kKnownLimits, kFindings},
       MakeAllocations},
  }};
  const auto found = std::find_if(kinds.begin(), kinds.end(),
                                  [&name](const KindOfTorture& kind) { return name == kind.name; });
  return found == kinds.end() ? nullptr : &*found;
}

}  // namespace torture
