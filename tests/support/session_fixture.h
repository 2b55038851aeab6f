// The fixture of the tests of tokens and account flows: a device with a client configuration, the
// vendor's server, a clock that the test owns, and the files of the account.
#pragma once

#include <sys/resource.h>

#include <ctime>
#include <functional>
#include <iosfwd>
#include <string>
#include <vector>

#include "tests/support/platform_fixture.h"
#include "tests/support/vendor_server.h"

namespace session {

inline constexpr char kAccount[] = "https://account.veltrix.example";
inline constexpr char kIdentity[] = "https://identity.veltrix.example";
inline constexpr char kTokenPath[] = "/oauth2/token";
inline constexpr char kExchangePath[] = "/oauth2/api/v1/device/core/authkey/exchange";
inline constexpr char kGrantPath[] = "/migration/api/v1/device/core/authorization_code/grant";
inline constexpr char kLogoutPath[] = "/device/api/logout";
inline constexpr char kReportPath[] = "/device/api/report";
inline constexpr char kQueryPath[] = "/device/api/user/query";
inline constexpr char kPasswordLoginPath[] = "/device/api/password_login";

inline constexpr char kAgent[] = "zomi HOS/7.2.1 (NX220)";
inline constexpr char kSerial[] = "FAKE123456789";
inline constexpr char kPrivateFolder[] = "/usr/kivo/etc/veltrix-account/private";
inline constexpr char kLoginTokens[] = "/usr/kivo/etc/veltrix-account/private/login_token.json";
inline constexpr char kLoginConfigPath[] =
    "/usr/kivo/etc.defaults/veltrix-account/config/pkce_login.conf";
inline constexpr char kRegisterConfigPath[] =
    "/usr/kivo/etc.defaults/veltrix-account/config/pkce_register.conf";

// The client configuration that the fixture installs for logging in.
inline constexpr char kLoginConfig[] = R"({
  "client_id": "login-client",
  "scope": "openid sn:$sn$ mac:$mac$",
  "audience": "the-audience",
  "auth_endpoint_path": "/oauth2/authorize",
  "token_endpoint_path": "/oauth2/token",
  "end_session_endpoint_path": "/oauth2/end",
  "login_redirect_path": "/login/back",
  "logout_redirect_path": "/logout/back"
})";

// The record of a linked device whose profile was queried just now.
inline constexpr char kLinkedRecord[] =
    "zomiID=\"anna@example.org\"\n"
    "zomiIDSerial=\"4711\"\n"
    "hs_auth_key=\"key of 4711\"\n"
    "report_cron_timestring=\"1 2 * * *\"\n"
    "last_query_time=\"1700000000\"\n";

inline constexpr std::time_t kNow = 1'700'000'000;

// A token answer, or token file, of the three tokens "<name>-access" and so on.
std::string TokenAnswer(const std::string& name, const std::string& more = R"("expires_in":3600)");
std::string TokenFile(const std::string& name, std::time_t created_at, int expires_in = 3600);

// A whole answer to the profile query.
std::string ProfileAnswer(const std::string& email = "anna@example.org");

// What a ZomiException said: its code and message, without the backtrace.
struct Thrown {
  std::uint32_t code = 0;
  std::string message;
  bool operator==(const Thrown&) const = default;
};
std::ostream& operator<<(std::ostream& stream, const Thrown& thrown);

// Runs `flow`; fails the test and gives code 0 when it throws nothing. Other exceptions pass.
Thrown Catch(const std::function<void()>& flow);

// Bodies that are no JSON, and JSON that is no object, as hostile servers send them.
struct NamedText {
  std::string name;
  std::string text;
};
const std::vector<NamedText>& TextsThatAreNoJson();
const std::vector<NamedText>& JsonThatIsNoObject();

// JSON texts of types that count as missing where a text is named.
const std::vector<NamedText>& JsonThatIsNoText();

// For parameterised tests: the name of the case.
inline std::string NameOf(const testing::TestParamInfo<NamedText>& info) { return info.param.name; }
void PrintTo(const NamedText& text, std::ostream* stream);

}  // namespace session

class SessionTest : public PlatformTest {
 protected:
  SessionTest();
  ~SessionTest() override;  // fails the test when a file was left half written

  // The device's clock.
  void SetTime(std::time_t now) { now_ = now; }

  // Another process holds the lock file account_<name>.lock for ever; waiting for it takes no time,
  // and every look at the clock finds it 10 seconds later.
  void HoldLock(const std::string& name);

  // The locks that were tried, in order, as "login_get_token".
  [[nodiscard]] static std::vector<std::string> Locks();

  // Cuts the time limit of the OAuth requests from now on, so that a slow answer is late.
  void CutTimeLimit();

  static void WriteTokens(const std::string& content);
  static std::string ReadTokens();
  static bool HasTokens();
  static void RemoveTokens();

  // Does what the shell does for the flow's "rm".
  void LetRmWork();

  // The names of the platform calls so far, helpers of the containers left out.
  [[nodiscard]] static std::vector<std::string> CallNames();

  VendorServer server_;

 private:
  std::time_t now_ = session::kNow;
};

// While it lives no byte can be written to any file.
class FullDisk {
 public:
  FullDisk();
  FullDisk(const FullDisk&) = delete;
  FullDisk& operator=(const FullDisk&) = delete;
  ~FullDisk();

 private:
  rlimit old_limit_{};
};

// Makes every DeviceApiUserAgentGet fail, which its real body has no way to do here.
bool& UserAgentFails();

// Makes every KIVOZOMIServerConfigGet fail.
bool& ServerConfigFails();
