// The fixture of the end-to-end tests: this machine is the device "NL00000001A", and the
// development cloud, which knows one account, answers under the vendor's host names.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json/value.h>

#include <optional>
#include <string>
#include <vector>

#include "devcloud/cloud.h"
#include "lab/process.h"
#include "lab/syslog_sink.h"
#include "support/files.h"

inline constexpr char kRecord[] = "/usr/kivo/etc/veltrix-account/private/user.conf";
inline constexpr char kTokens[] = "/usr/kivo/etc/veltrix-account/private/login_token.json";
inline constexpr char kApiKeyFile[] = "/usr/kivo/etc/cloudservice/api_key";
inline constexpr char kReportJob[] = "/etc/cron.d/kivo-zomi";
inline constexpr char kNotices[] = "/usr/kivo/var/notifications.jsonl";
inline constexpr char kEvents[] = "/usr/kivo/var/events.jsonl";
inline constexpr char kQueryPath[] = "/device/api/user/query";
inline constexpr char kTokenPath[] = "/oauth2/v1/token";
inline constexpr char kSerial[] = "NL00000001A";
inline constexpr char kEmail[] = "anna@example.org";
inline constexpr char kPassword[] = "correct horse";

class DeviceTest : public testing::Test {
 protected:
  DeviceTest();

  // Links the device to the account at the cloud, and in the record as a login would.
  devcloud::Link LinkDevice();

  // Changes the account at the cloud.
  void SetState(const std::string& word);
  void Update(const devcloud::Account& account);

  // Runs the installed nodelink.
  lab::ProcessResult Run(const std::vector<std::string>& options);

  // Runs the installed nodelink-login with `input` as its standard input.
  lab::ProcessResult LogIn(const std::vector<std::string>& options, const std::string& input);

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

  lab::SyslogSink sink_;
  devcloud::Cloud cloud_;
  devcloud::Account account_;
};
