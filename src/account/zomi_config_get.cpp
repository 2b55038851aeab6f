#include "account/zomi_config_get.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "account/account_files.h"
#include "account/privilege_guard.h"
#include "core/error_code.h"
#include "core/log.h"
#include "core/platform_owner.h"
#include "klibc/keyvalue.h"

namespace nodelink {
namespace {

constexpr int kInitialSize = 512;
constexpr char kIdentifierKey[] = "zomiID";
constexpr char kPasswordKey[] = "zomiPW";

int ReadKeys(KLIBCSZLIST* keys, KLIBCSZHASH* values) {
  int count = 0;
  const bool privileged = RunPrivileged(
      Here(), [&] { count = KLIBCFileGetKeys(account_files::kRecord, keys, values, "="); });
  if (!privileged) return Fail(kSystemError);
  if (count < 0) {
    LogError(Here(), "KLIBCFileGetKeys() failed!! szFile=[%s], kivoerr=[0x%04X]",
             account_files::kRecord, static_cast<unsigned int>(KLIBCErrGet()));
    return Fail(kNoAccount);
  }
  return 0;
}

int CopyValue(const KLIBCSZHASH* values, const char* key, std::array<char, 4096>& field) {
  const char* value = KLIBCSzHashGetValue(values, key);
  if (value == nullptr || *value == '\0') {
    const int reason = errno;
    LogError(Here(), "key [%s] not found in %s, errno=%s/%d\n", key, account_files::kRecord,
             std::strerror(reason), reason);
    return Fail(kNoAccount);
  }
  std::snprintf(field.data(), field.size(), "%s", value);
  return 0;
}

}  // namespace

int ZomiConfigGet(LegacyCredentials* credentials) {
  if (credentials == nullptr) return Fail(kWrongParameters);
  if (access(account_files::kRecord, F_OK) != 0) return Fail(kNoAccount);
  const SzList keys(KLIBCSzListAlloc(kInitialSize));
  const SzHash values(KLIBCSzHashAlloc(kInitialSize));
  if (!keys || !values || KLIBCSzListPush(keys.get(), kIdentifierKey) < 0 ||
      KLIBCSzListPush(keys.get(), kPasswordKey) < 0) {
    LogError(Here(), "Out of memory!!");
    return Fail(kSystemError);
  }
  if (ReadKeys(keys.get(), values.get()) != 0 ||
      CopyValue(values.get(), kIdentifierKey, credentials->zomi_id) != 0) {
    return -1;
  }
  return CopyValue(values.get(), kPasswordKey, credentials->zomi_pw);
}

}  // namespace nodelink
