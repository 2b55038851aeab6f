// The facts about this device that several facilities need.
#pragma once

#include <optional>
#include <string>

namespace hos_linux {

// What the maker wrote about this device.
inline constexpr char kDeviceFacts[] = "/etc.defaults/kivoinfo.conf";

[[nodiscard]] std::optional<std::string> SerialNumber();
[[nodiscard]] std::optional<std::string> MacAddress();

}  // namespace hos_linux
