// What the cloud knows of accounts and devices.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace devcloud {

inline constexpr char kGoodWord[] = "good";

struct Account {
  std::string user_id = {};  // what devices know as their "id"
  std::string email = {};
  std::string state =
      kGoodWord;  // the status word that every request of this account is answered with
  std::string full_name = {};
  std::string country = {};
  std::string timezone = {};
  std::string notify_language = {};
  bool activated = true;
  bool disabled = false;
  bool enews = false;
  bool enews_local_promotion = false;
  bool critical_release = false;
  bool realname_validation_pass = false;
  std::map<std::string, bool> critical_version_list = {};
  std::optional<std::string> report_cron_timestring = {};
};

// The members of an account that are plain texts and flags, under the one name they have in JSON
// and in the database. The first kProfileTexts belong to the profile that devices see.
struct AccountText {
  const char* name;
  std::string Account::*member;
};
struct AccountFlag {
  const char* name;
  bool Account::*member;
};
inline constexpr std::array<AccountText, 6> kAccountTexts{{
    {"email", &Account::email},
    {"full_name", &Account::full_name},
    {"country", &Account::country},
    {"timezone", &Account::timezone},
    {"notify_language", &Account::notify_language},
    {"state", &Account::state},
}};
inline constexpr std::size_t kProfileTexts = 5;
inline constexpr std::array<AccountFlag, 6> kAccountFlags{{
    {"activated", &Account::activated},
    {"disabled", &Account::disabled},
    {"enews", &Account::enews},
    {"enews_local_promotion", &Account::enews_local_promotion},
    {"critical_release", &Account::critical_release},
    {"realname_validation_pass", &Account::realname_validation_pass},
}};

struct Device {
  std::string serial = {};
  std::string mac = {};
  std::optional<std::string> api_key = {};  // none: the device has to register one
  bool api_key_expired = false;
  std::int64_t max_accounts = 5;  // how many accounts may ever be registered with this device
  // The schedule for this device; without one the account's is given out.
  std::optional<std::string> report_cron_timestring = {};
  // The last report: when (seconds since the epoch, 0 for never), what it said, and the schedule
  // that its answer gave.
  std::int64_t reported_at = 0;
  std::string reported_timezone = {};
  std::optional<std::string> schedule_given = {};
};

// A device that is logged in to an account.
struct Link {
  std::string serial = {};
  std::string user_id = {};
  std::string auth_key = {};
};

// True for the status words that a device takes as success.
[[nodiscard]] bool IsSuccessWord(std::string_view word);

// Serial numbers: 1 to 35 printable characters without spaces, the first one a letter or a digit.
[[nodiscard]] bool IsValidSerial(std::string_view serial);
// MAC addresses: 12 hex digits, in pairs that may be divided by ':' or '-'.
[[nodiscard]] bool IsValidMac(std::string_view mac);

}  // namespace devcloud
