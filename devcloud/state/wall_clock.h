// The time of day, as something that tests can bring along.
#pragma once

#include <cstdint>
#include <functional>

namespace devcloud {

// Seconds since the epoch. Called from several threads.
using WallClock = std::function<std::int64_t()>;

}  // namespace devcloud
