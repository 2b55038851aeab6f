// The keys of the account record, with the type and the default of each.
#pragma once

#include <cstdint>

namespace nodelink {

template <typename Value>
struct RecordKey {
  const char* name;
  Value default_value;  // what a missing or empty value reads as
};

using TextKey = RecordKey<const char*>;
using FlagKey = RecordKey<bool>;
using IntegerKey = RecordKey<std::int64_t>;

namespace record {

// The hosts of an account that was linked through hosts of the user's own.
inline constexpr TextKey kAccountHost{"account_host", ""};
inline constexpr TextKey kIdentityHost{"identity_host", ""};

// The account's identifier (its e-mail address); a device with none is not linked.
inline constexpr TextKey kZomiId{"zomiID", ""};

// What the account server knows the linked device by, and the device's key there.
inline constexpr TextKey kZomiIdSerial{"zomiIDSerial", ""};
inline constexpr TextKey kHsAuthKey{"hs_auth_key", ""};

// The account's profile and notification preferences, as last queried.
inline constexpr TextKey kFullName{"full_name", ""};
inline constexpr TextKey kCountry{"country", ""};
inline constexpr TextKey kTimezone{"timezone", ""};
inline constexpr TextKey kNotifyLanguage{"notify_language", ""};
inline constexpr TextKey kCriticalVersionList{"critical_version_list", ""};
inline constexpr TextKey kCriticalVersionDomain{"critical_version_domain", ""};

// When the periodic report runs, for the platform's cron library to interpret.
inline constexpr TextKey kReportCronTimestring{"report_cron_timestring", "~ 9~16 * * 1~5"};

// When the profile was last queried, in seconds since the epoch.
inline constexpr IntegerKey kLastQueryTime{"last_query_time", 0};

inline constexpr FlagKey kActivated{"activated", false};
inline constexpr FlagKey kDisabled{"disabled", false};
inline constexpr FlagKey kEnews{"enews", false};
inline constexpr FlagKey kCriticalRelease{"critical_release", false};
inline constexpr FlagKey kEnewsLocalPromotion{"enews_local_promotion", false};
inline constexpr FlagKey kRealnameValidationPass{"realname_validation_pass", true};

}  // namespace record
}  // namespace nodelink
