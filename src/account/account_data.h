// The whole account record at once, for the function layer.
#pragma once

#include <cstdint>
#include <string>

namespace nodelink {

// Every key of the record (account/record_keys.h), with its default where the record has no value.
struct AccountData {
  std::string account_host;
  std::string identity_host;
  std::string zomi_id;
  std::string zomi_id_serial;
  std::string hs_auth_key;
  std::string full_name;
  std::string country;
  std::string timezone;
  std::string notify_language;
  std::string critical_version_list;
  std::string critical_version_domain;
  std::string report_cron_timestring;
  std::int64_t last_query_time = 0;
  bool activated = false;
  bool disabled = false;
  bool enews = false;
  bool critical_release = false;
  bool enews_local_promotion = false;
  bool realname_validation_pass = true;
};

// What the account server knows a link by: "zomiIDSerial" and "hs_auth_key", both empty when the
// record names no link.
struct LinkIdentity {
  std::string id_serial;
  std::string auth_key;

  bool operator==(const LinkIdentity&) const = default;
};

// Reads the record under privileges, in one pass over the file. A missing record reads as an empty
// one. Returns 0, or -1 when it cannot be read at all. Privileges that cannot be raised are logged,
// as the record's own readers log them.
[[nodiscard]] int ReadAccountData(AccountData& data);

// The same without a log line.
[[nodiscard]] int ReadAccountDataSilently(AccountData& data);

// The same for a linked device only: -1 also when there is no record or its "zomiID" is empty.
[[nodiscard]] int ReadLinkedAccountData(AccountData& data);

inline LinkIdentity LinkOf(const AccountData& data) {
  return {data.zomi_id_serial, data.hs_auth_key};
}

}  // namespace nodelink
