#include "account/account_data.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "account/account_files.h"
#include "account/privilege_guard.h"
#include "account/record_keys.h"
#include "account/record_value.h"
#include "core/log.h"
#include "core/platform_owner.h"
#include "klibc/keyvalue.h"

namespace nodelink {
namespace {

constexpr int kInitialSize = 1024;

// The log knows one reader of the record.
constexpr LogSite kSite{"user", __LINE__};

std::string Value(const KLIBCSZHASH* values, const char* key) {
  const char* value = KLIBCSzHashGetValue(values, key);
  return value == nullptr ? "" : value;
}

// Visits each field of `data` together with its key.
template <typename Visitor>
void ForEachField(AccountData& data, Visitor visit) {
  visit(record::kAccountHost, data.account_host);
  visit(record::kIdentityHost, data.identity_host);
  visit(record::kZomiId, data.zomi_id);
  visit(record::kZomiIdSerial, data.zomi_id_serial);
  visit(record::kHsAuthKey, data.hs_auth_key);
  visit(record::kFullName, data.full_name);
  visit(record::kCountry, data.country);
  visit(record::kTimezone, data.timezone);
  visit(record::kNotifyLanguage, data.notify_language);
  visit(record::kCriticalVersionList, data.critical_version_list);
  visit(record::kCriticalVersionDomain, data.critical_version_domain);
  visit(record::kReportCronTimestring, data.report_cron_timestring);
  visit(record::kLastQueryTime, data.last_query_time);
  visit(record::kActivated, data.activated);
  visit(record::kDisabled, data.disabled);
  visit(record::kEnews, data.enews);
  visit(record::kCriticalRelease, data.critical_release);
  visit(record::kEnewsLocalPromotion, data.enews_local_promotion);
  visit(record::kRealnameValidationPass, data.realname_validation_pass);
}

void Assign(const TextKey& key, const std::string& text, std::string& field) {
  field = text.empty() ? key.default_value : text;
}

void Assign(const FlagKey& key, const std::string& text, bool& field) {
  field = record::ParseFlag(text, key.default_value);
}

void Assign(const IntegerKey& key, const std::string& text, std::int64_t& field) {
  field = record::ParseInteger(text, key.default_value);
}

// The keys of a missing record are as absent as those of an empty one; any other record that cannot
// be read must not pass for empty, or the server would be asked without the device's credentials.
bool ReadValues(KLIBCSZLIST* keys, KLIBCSZHASH* values) {
  return KLIBCFileGetKeys(account_files::kRecord, keys, values, "=") >= 0 ||
         (faccessat(AT_FDCWD, account_files::kRecord, F_OK, AT_EACCESS) != 0 && errno == ENOENT);
}

// `privileged` runs an operation with root's rights; false when they cannot be had.
template <typename Privileged>
int Read(Privileged privileged, AccountData& data) {
  const SzList keys(KLIBCSzListAlloc(kInitialSize));
  const SzHash values(KLIBCSzHashAlloc(kInitialSize));
  if (!keys || !values) return -1;
  bool listed = true;
  ForEachField(data, [&](const auto& key, auto&) {
    listed = listed && KLIBCSzListPush(keys.get(), key.name) >= 0;
  });
  bool read = false;
  if (!listed || !privileged([&] { read = ReadValues(keys.get(), values.get()); }) || !read) {
    return -1;
  }
  ForEachField(data, [&](const auto& key, auto& field) {
    Assign(key, Value(values.get(), key.name), field);
  });
  return 0;
}

}  // namespace

int ReadAccountData(AccountData& data) {
  return Read([](auto operation) { return RunPrivileged(kSite, operation); }, data);
}

int ReadAccountDataSilently(AccountData& data) {
  return Read([](auto operation) { return RunPrivilegedSilently(operation); }, data);
}

int ReadLinkedAccountData(AccountData& data) {
  return ReadAccountData(data) == 0 && !data.zomi_id.empty() ? 0 : -1;
}

}  // namespace nodelink
