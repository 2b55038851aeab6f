// This machine as the device "NL00000001A", with the development cloud answering under the vendor's
// host names. For the programs as they are installed; inside the lab only.
#pragma once

#include <json/value.h>

#include <optional>
#include <string>
#include <vector>

#include "devcloud/cloud.h"
#include "lab/files.h"
#include "lab/process.h"
#include "lab/syslog_sink.h"

namespace lab {

inline constexpr char kProgram[] = "/usr/kivo/bin/nodelink";
inline constexpr char kLoginProgram[] = "/usr/kivo/bin/nodelink-login";
inline constexpr char kHttpWorker[] = "/usr/kivo/lib/nodelink-http";
inline constexpr char kCloudWorker[] = "/usr/kivo/lib/kivo-cloudservice";
inline constexpr char kPrivateFolder[] = "/usr/kivo/etc/veltrix-account/private";
inline constexpr char kRecord[] = "/usr/kivo/etc/veltrix-account/private/user.conf";
inline constexpr char kTokens[] = "/usr/kivo/etc/veltrix-account/private/login_token.json";
inline constexpr char kApiKeyFile[] = "/usr/kivo/etc/cloudservice/api_key";
inline constexpr char kApiKeyFolder[] = "/usr/kivo/etc/cloudservice";
inline constexpr char kJobFolder[] = "/etc/cron.d";
inline constexpr char kCrontab[] = "/etc/crontab";
inline constexpr char kReportJob[] = "/etc/cron.d/kivo-zomi";
inline constexpr char kNotices[] = "/usr/kivo/var/notifications.jsonl";
inline constexpr char kEvents[] = "/usr/kivo/var/events.jsonl";

inline constexpr char kRegisterPath[] = "/cloudservice/api/v1/apikey/register";
inline constexpr char kPasswordLoginPath[] = "/device/api/password_login";
inline constexpr char kReportPath[] = "/device/api/report";
inline constexpr char kQueryPath[] = "/device/api/user/query";
inline constexpr char kLogoutPath[] = "/device/api/logout";
inline constexpr char kTokenPath[] = "/oauth2/v1/token";
inline constexpr char kExchangePath[] = "/oauth2/api/v1/device/core/authkey/exchange";
inline constexpr char kGrantPath[] = "/migration/api/v1/device/core/authorization_code/grant";

inline constexpr char kSerial[] = "NL00000001A";
inline constexpr char kEmail[] = "anna@example.org";
inline constexpr char kPassword[] = "correct horse";

class Device {
 public:
  // The cloud knows the device, unlinked, and one account.
  Device();

  // Links the device to the account at the cloud, and in the record as a login would.
  devcloud::Link LinkDevice();

  // Changes the account at the cloud.
  void SetState(const std::string& word);
  void Update(const devcloud::Account& account);

  // Runs the installed nodelink.
  static ProcessResult Run(const std::vector<std::string>& options);

  // Runs the installed nodelink-login with `input` as its standard input.
  static ProcessResult LogIn(const std::vector<std::string>& options, const std::string& input);

  // Puts `words` (a shell's) before those with which the programs that talk to the network are
  // started: nothing of the caller's environment reaches them.
  static void StartWorkersBehind(const std::string& words);
  static void StartWorkerBehind(const std::string& worker, const std::string& words);
  // As it is installed again.
  static void StartWorkerAlone(const std::string& worker);

  // What stands before a program's words to give it, and those that it starts, a clock that runs
  // `times` times as fast.
  static std::vector<std::string> FastClock(int times);

  // The requests to `path` so far (all, when empty).
  std::vector<devcloud::LogEntry> Requests(const std::string& path = "") {
    return cloud_.log().Read(0, path);
  }

  // The lines logged so far as "FILE MESSAGE", without the line number.
  std::vector<std::string> Log();

  // The record's value of `key`; nothing when it has no such line.
  static std::optional<std::string> RecordValue(const std::string& key);

  // Makes the record's last query as old as that.
  static void SetLastQueryAge(long seconds);

  // Sets the record's line of `key`, which must be there.
  static void SetRecordValue(const std::string& key, const std::string& value);

  // The stored tokens. Throws when there are none.
  static Json::Value Tokens();

  // As if they had been stored that long ago.
  static void AgeTokens(int seconds);

 protected:
  SyslogSink sink_;
  devcloud::Cloud cloud_;
  devcloud::Account account_;
};

}  // namespace lab
