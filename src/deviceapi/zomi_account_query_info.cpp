#include "deviceapi/zomi_account_query_info.h"

#include <array>
#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <utility>

#include "account/account_data.h"
#include "account/account_files.h"
#include "account/link_lock.h"
#include "account/record_change.h"
#include "account/user.h"
#include "core/error_code.h"
#include "core/json_value.h"
#include "core/log.h"
#include "core/zomi_exception.h"
#include "pkce/file_lock.h"

namespace nodelink {
namespace {

constexpr char kPath[] = "device/api/user/query";
constexpr char kLockName[] = "query_info";
constexpr unsigned int kLockTimeout = 30;         // seconds
constexpr std::uint64_t kNeverAskBelow = 300;     // seconds
constexpr std::uint64_t kCacheAnswersTo = 86399;  // seconds

// A member of the answer, and its place in the record.
struct TextField {
  const char* name;
  const TextKey& key;
};

struct FlagField {
  const char* name;
  const FlagKey& key;
};

// Those that every answer must have, in the order in which they are written.
constexpr std::array kTextFields = {
    TextField{"email", record::kZomiId},
    TextField{"full_name", record::kFullName},
    TextField{"country", record::kCountry},
    TextField{"timezone", record::kTimezone},
    TextField{"notify_language", record::kNotifyLanguage},
};
constexpr std::array kFlagFields = {
    FlagField{"activated", record::kActivated},
    FlagField{"disabled", record::kDisabled},
    FlagField{"enews", record::kEnews},
    FlagField{"enews_local_promotion", record::kEnewsLocalPromotion},
    FlagField{"critical_release", record::kCriticalRelease},
};

// Up to 1 MiB of text, and what it says: it goes as soon as it is read.
struct Answer {
  std::string text;
  Json::Value json;
};

// What the server says of the account, read from a whole answer.
struct Profile {
  std::array<std::string, kTextFields.size()> texts;
  std::array<bool, kFlagFields.size()> flags{};
  std::string critical_version_list;    // names of the members that are true
  std::string critical_version_domain;  // names of all members
  bool realname_validation_pass = false;
  std::optional<std::string> report_cron_timestring;
};

// Seconds between now and then, whichever comes first: a time in the future is as wrong as one long
// ago.
std::uint64_t Age(std::int64_t then) {
  const std::int64_t now = std::time(nullptr);
  const auto distance = static_cast<std::uint64_t>(now) - static_cast<std::uint64_t>(then);
  return now >= then ? distance : 0 - distance;
}

bool MustAskServer(const AccountData& cached, Refresh refresh) {
  const std::uint64_t age = Age(cached.last_query_time);
  if (age < kNeverAskBelow) return false;
  return refresh == Refresh::kYes || age > kCacheAnswersTo;
}

// Asks the account server.
int Ask(const AccountData& cached, Quick quick, Answer& answer) {
  std::string host;
  std::string serial;
  if (FindAccountHost(Here(), host) < 0 || ReadSerialNumber(Here(), serial) < 0) return -1;
  const SzHash form = MakeForm(Here(), {{"id", cached.zomi_id_serial.c_str()},
                                        {"auth_key", cached.hs_auth_key.c_str()},
                                        {"serial_no", serial.c_str()}});
  if (!form || SendForm(Here(), host, kPath, form.get(), quick, answer.text) < 0) return -1;
  return ParseAnswer(Here(), answer.text, answer.json);
}

// `first` says that no name stands before it: a name may be empty, so the list's length does not
// tell.
void AppendName(std::string& list, const std::string& name, bool& first) {
  list += first ? "" : ",";
  list += name;
  first = false;
}

// False when the list is missing or one of its flags is no boolean.
bool ReadCriticalVersions(const Json::Value& answer, Profile& profile) {
  const Json::Value* versions = json::ObjectMember(answer, "critical_version_list");
  if (versions == nullptr) return false;
  bool first_of_all = true;
  bool first_that_is_true = true;
  for (auto version = versions->begin(); version != versions->end(); ++version) {
    if (!version->isBool() && !version->isNull()) return false;
    AppendName(profile.critical_version_domain, version.name(), first_of_all);
    if (version->asBool()) {
      AppendName(profile.critical_version_list, version.name(), first_that_is_true);
    }
  }
  return true;
}

// Nothing when a member that every answer must have is missing.
std::optional<Profile> ReadProfile(const Json::Value& answer) {
  Profile profile;
  for (std::size_t index = 0; index < kTextFields.size(); ++index) {
    auto text = json::TextMember(answer, kTextFields[index].name);
    if (!text) return std::nullopt;
    profile.texts[index] = std::move(*text);
  }
  for (std::size_t index = 0; index < kFlagFields.size(); ++index) {
    const auto flag = json::BoolMember(answer, kFlagFields[index].name);
    if (!flag) return std::nullopt;
    profile.flags[index] = *flag;
  }
  profile.realname_validation_pass =
      json::BoolMember(answer, "realname_validation_pass").value_or(false);
  profile.report_cron_timestring = json::TextMember(answer, "report_cron_timestring");
  return ReadCriticalVersions(answer, profile) ? std::optional(std::move(profile)) : std::nullopt;
}

int LogOut(const LinkLock& lock, RecordChange& change) {
  LogError(Here(), "Logged out Zomi due to authentication failure.");
  change.Remove(lock);  // a failure is logged there; the next query comes back to it
  return Fail(kNoAccount);
}

// Judges the verdict of an answer that does not end the link; `profile` is filled only for a good
// one.
int Judge(const Answer& answer, Profile& profile) {
  const auto word = json::TextMember(answer.json, "code");
  auto read = ReadProfile(answer.json);
  if (!word || !read) {
    LogError(Here(), "Server returned insufficient data. resp=%s", answer.text.c_str());
    return Fail(kBadResponse);
  }
  SetServerStatusError(word->c_str());
  if (LastErrorCode() != kSuccess) {
    LogError(Here(), "Failed to query %s, resp=%s, code=%u", kPath, answer.text.c_str(),
             LastErrorCode());
    return -1;
  }
  profile = std::move(*read);
  return 0;
}

void WriteProfile(const LinkLock& lock, RecordChange& change, const Profile& profile) {
  for (std::size_t index = 0; index < kTextFields.size(); ++index) {
    change.Set(lock, kTextFields[index].key, profile.texts[index]);
  }
  for (std::size_t index = 0; index < kFlagFields.size(); ++index) {
    change.Set(lock, kFlagFields[index].key, profile.flags[index]);
  }
  change.Set(lock, record::kCriticalVersionList, profile.critical_version_list);
  change.Set(lock, record::kCriticalVersionDomain, profile.critical_version_domain);
  change.Set(lock, record::kRealnameValidationPass, profile.realname_validation_pass);
  if (profile.report_cron_timestring) {
    change.Set(lock, record::kReportCronTimestring, *profile.report_cron_timestring);
  }
  change.Set(lock, record::kLastQueryTime, static_cast<std::int64_t>(std::time(nullptr)));
}

int Store(const LinkLock& lock, RecordChange& change, const Profile& profile) {
  try {
    WriteProfile(lock, change, profile);
    return 0;
  } catch (const ZomiException& failure) {
    LogError(Here(), "Failed to set user: %s", failure.what());
    return Fail(failure.code());
  }
}

int FillOutput(Json::Value& output) {
  try {
    const User user;
    output["auth_key"] = user.Get(record::kHsAuthKey);
    for (const TextField& field : kTextFields) output[field.name] = user.Get(field.key);
    for (const FlagField& field : kFlagFields) output[field.name] = user.Get(field.key);
    return 0;
  } catch (const ZomiException& failure) {
    LogError(Here(), "Failed to get user: %s", failure.what());
    return Fail(failure.code());
  }
}

int Act(const LinkLock& lock, RecordChange& change, Answer answer) {
  if (json::TextMember(answer.json, "code") == "badauth") return LogOut(lock, change);
  Profile profile;
  if (Judge(answer, profile) < 0) return -1;
  answer = {};
  return Store(lock, change, profile);
}

int ActIfStillLinked(const AccountData& cached, RecordChange& change, Answer answer) {
  const LinkLock lock;
  if (!lock.Holds(LinkOf(cached))) return FailLinkChanged(Here());
  const int result = Act(lock, change, std::move(answer));
  if (result < 0) change.Undo(lock);
  return result;
}

int RefreshRecord(const AccountData& cached, Quick quick, RecordChange& change) {
  Answer answer;
  if (Ask(cached, quick, answer) < 0) return -1;
  try {
    return ActIfStillLinked(cached, change, std::move(answer));
  } catch (const ZomiException& failure) {
    return Fail(failure.code());  // the lock of the link; the reason is logged there
  }
}

}  // namespace

int ZomiAccountQueryInfo(Json::Value& output, Refresh refresh, Quick quick) {
  RecordChange change;
  return ZomiAccountQueryInfo(output, refresh, quick, change);
}

int ZomiAccountQueryInfo(Json::Value& output, Refresh refresh, Quick quick, RecordChange& change) {
  // One query at a time: those that wait find the record fresh, and no two interleave their writes.
  FileLock lock(account_files::LockFile(kLockName), 0);
  if (!lock.Lock(kLockTimeout)) {
    LogError(Here(), "Failed to lock file: %s", lock.path().c_str());
    return -1;
  }
  SetLastErrorCode(kSuccess);
  AccountData cached;
  if (ReadAccountData(cached) < 0) return Fail(kNoAccount);
  if (MustAskServer(cached, refresh) && RefreshRecord(cached, quick, change) < 0) return -1;
  return FillOutput(output);
}

}  // namespace nodelink
