// The account record: the cloud account that this device is linked to, in a key-value file of
// root's.
//
//   nodelink::User user;
//   if (user.HasAccount()) {
//     user.Set(nodelink::record::kNotifyLanguage, "ger");
//     std::puts(user.Get(nodelink::record::kZomiId).c_str());
//   }
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "account/record_keys.h"

namespace nodelink {

class UserImpl;

// The keys with their meanings, units and defaults are in account/record_keys.h. The caller is
// root, or can raise its privileges to root's. Every call goes to the file at once; nothing is kept
// in memory, so processes that use the record at the same time see each other's last completed
// write of a key.
class User {
 public:
  User();
  User(const User&) = delete;
  User& operator=(const User&) = delete;
  ~User();

  // The value of `key`, texts cut at 2047 bytes; the key's default when the file, the key or the
  // value is missing or cannot be read. Flags: "yes" and "true" are true, any other text is false.
  // Throws ZomiException with kSystemError when privileges cannot be raised.
  std::string Get(const TextKey& key) const;
  bool Get(const FlagKey& key) const;
  std::int64_t Get(const IntegerKey& key) const;

  // Writes `value` and leaves the file with mode 0600, owner and group root. Throws ZomiException
  // with kSystemError when privileges cannot be raised, with kAccountNotWritten when the value is
  // not written: texts with a line break or NUL never are.
  void Set(const TextKey& key, const std::string& value);
  void Set(const FlagKey& key, bool value);
  void Set(const IntegerKey& key, std::int64_t value);

  // Whether the device is linked to an account: its identifier is not empty. Throws as Get does.
  bool HasAccount() const;

 private:
  std::unique_ptr<UserImpl> impl_;
};

}  // namespace nodelink
