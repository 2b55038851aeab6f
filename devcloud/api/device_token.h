// The token that a device proves its requests with.
#pragma once

#include <string>

namespace devcloud {

// 32 lower-case hex digits from the serial number and the credentials sent beside it (each may be
// empty): an iterated MD5 whose number of rounds, 1 to 16, is the first digit of the first digest
// plus one.
[[nodiscard]] std::string DeviceToken(const std::string& serial, const std::string& account_id,
                                      const std::string& account_password);

}  // namespace devcloud
