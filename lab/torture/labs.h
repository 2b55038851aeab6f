// Outside the labs: runs the cases in several labs side by side and sums up what they count.
#pragma once

#include "lab/torture/options.h"

namespace torture {

// False when there were findings. The working folder is the checkout, `program` this program;
// counts are left in build/reliability. Throws std::system_error or std::runtime_error.
[[nodiscard]] bool RunLabs(const Options& options, const std::string& program);

}  // namespace torture
