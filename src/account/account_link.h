// Naming the account in the record when the device is linked to it.
#pragma once

#include <string>

namespace nodelink {

// Writes what the account server knows the device by, and the device's key there. When that is
// another account than the record's, the stored profile no longer answers queries. Throws
// ZomiException as User does.
void WriteAccountLink(const std::string& id_serial, const std::string& auth_key);

}  // namespace nodelink
