#include "account/user.h"

#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>

#include "account/account_files.h"
#include "account/privilege_guard.h"
#include "account/record_value.h"
#include "core/error_code.h"
#include "core/log.h"
#include "core/zomi_exception.h"
#include "klibc/keyvalue.h"

namespace nodelink {

class UserImpl {
 public:
  std::string ReadText(const char* key, const char* default_value) const;
  void WriteText(const char* key, const std::string& value);
};

namespace {

constexpr int kValueSize = 2048;
constexpr char kLineFormat[] = "%s=\"%s\"\n";
constexpr mode_t kMode = 0600;

// The platform takes C strings: a NUL would cut the value in silence.
bool SetKeyValue(const char* key, const std::string& value) {
  return value.find('\0') == std::string::npos &&
         KLIBCFileSetKeyValue(account_files::kRecord, key, value.c_str(), kLineFormat) >= 0;
}

// The file belongs to root alone, also after a write that failed half way or by another program.
void ProtectFile() {
  if (chmod(account_files::kRecord, kMode) != 0) {
    LogError(Here(), "chmod failed, path=%s, reason=%s", account_files::kRecord,
             std::strerror(errno));
  }
  if (chown(account_files::kRecord, 0, 0) != 0) {
    LogError(Here(), "chown failed, path=%s, reason=%s", account_files::kRecord,
             std::strerror(errno));
  }
}

}  // namespace

std::string UserImpl::ReadText(const char* key, const char* default_value) const {
  std::array<char, kValueSize> buffer{};
  int length = 0;
  const bool privileged = RunPrivileged(Here(), [&] {
    length = KLIBCFileGetKeyValue(account_files::kRecord, key, buffer.data(), kValueSize, 0);
  });
  if (!privileged) throw ZomiException(kSystemError);
  return length > 0 ? buffer.data() : default_value;
}

void UserImpl::WriteText(const char* key, const std::string& value) {
  bool written = false;
  const bool privileged = RunPrivileged(Here(), [&] {
    written = SetKeyValue(key, value);
    if (!written) LogError(Here(), "Failed to set zomi config for %s:%s", key, value.c_str());
    ProtectFile();
  });
  if (!privileged) throw ZomiException(kSystemError);
  if (!written) throw ZomiException(kAccountNotWritten);
}

User::User() : impl_(std::make_unique<UserImpl>()) {}

User::~User() = default;

std::string User::Get(const TextKey& key) const {
  return impl_->ReadText(key.name, key.default_value);
}

bool User::Get(const FlagKey& key) const {
  return record::ParseFlag(impl_->ReadText(key.name, ""), key.default_value);
}

std::int64_t User::Get(const IntegerKey& key) const {
  return record::ParseInteger(impl_->ReadText(key.name, ""), key.default_value);
}

void User::Set(const TextKey& key, const std::string& value) {
  impl_->WriteText(key.name, record::ValueText(value));
}

void User::Set(const FlagKey& key, bool value) {
  impl_->WriteText(key.name, record::ValueText(value));
}

void User::Set(const IntegerKey& key, std::int64_t value) {
  impl_->WriteText(key.name, record::ValueText(value));
}

bool User::HasAccount() const { return !Get(record::kZomiId).empty(); }

}  // namespace nodelink
