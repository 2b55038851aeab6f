#include "account/account_link.h"

#include "account/user.h"

namespace nodelink {

void WriteAccountLink(const std::string& id_serial, const std::string& auth_key) {
  User user;
  const std::string old_serial = user.Get(record::kZomiIdSerial);
  if (!old_serial.empty() && old_serial != id_serial) {
    user.Set(record::kLastQueryTime, 0);
  }
  user.Set(record::kZomiIdSerial, id_serial);
  user.Set(record::kHsAuthKey, auth_key);
}

}  // namespace nodelink
