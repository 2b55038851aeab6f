#include "lab/flow.h"

#include <fnmatch.h>

#include <stdexcept>
#include <string_view>

#include "lab/browser.h"

namespace lab {
namespace {

constexpr char kLoginLock[] = "/usr/kivo/etc/veltrix-account/private/.login.lock";
constexpr char kQueryLock[] = "/tmp/account_query_info.lock";
constexpr char kGetLock[] = "/tmp/account_login_get_token.lock";
constexpr char kRenewLock[] = "/tmp/account_login_renew_token.lock";
constexpr char kExchangeLock[] = "/tmp/account_login_exchange_token.lock";

constexpr Said kLogoutIsGood{kLogoutPath, 200, R"({"code":"good"})"};

// A fault may have eaten the address: then nobody signs in.
constexpr std::chrono::seconds kTimeToShowTheAddress{5};

bool Matches(const std::string& pattern, std::string_view text) {
  while (text.ends_with('\n')) text.remove_suffix(1);
  return fnmatch(pattern.c_str(), std::string(text).c_str(), FNM_EXTMATCH) == 0;
}

Command Nodelink(const char* name, const char* option, End good, End failed) {
  return {name, {kProgram, option}, std::move(good), std::move(failed)};
}

Command Login(const char* name, const Person& person) {
  constexpr char kReasons[] =
      "nodelink-login: @(Success|Wrong parameters|Wrong JSON format|Failed to get zomi account"
      "|Failed to send the request|Failed to get the response|System error"
      "|Failed to get the payment config [(]url[)]|Failed to auth) (code +([0-9]))";
  return {.name = name,
          .words = {kLoginProgram},
          .good = {.out = std::string("*Logged in?( as ") + person.email + ")"},
          .failed = {.status = 1, .out = "!(*Logged*)", .err = kReasons},
          .person = &person};
}

std::vector<std::string> WordsBehind(const std::vector<std::string>& prefix,
                                     const Command& command) {
  std::vector<std::string> words = prefix;
  words.insert(words.end(), command.words.begin(), command.words.end());
  return words;
}

void SignInFor(BackgroundProcess& login, const Person& person, const std::string& address) {
  login.Write(SignIn(address, person.email, person.password) + "\n");
}

std::string SenderLine(const char* path) {
  return std::string("zomi_https_req_send https://account.veltrix.example") + path +
         ", Failed to curl perform, code=";
}

// --- Requests that several flows make. ---

Request QueryRequest() {
  return {.name = "query",
          .path = kQueryPath,
          .locks = {kQueryLock},
          .unreached =
              Unreached{.out = "Query account failed",
                        .log = {SenderLine(kQueryPath),
                                "zomi_account_query_info Failed to send https request. err=["}}};
}

Request ReportRequest() {
  return {.name = "report",
          .path = kReportPath,
          .unreached = Unreached{.log = {SenderLine(kReportPath),
                                         "zomi_report_info Failed to send https request. err=[",
                                         "nodelink Failed to report Zomi info, code=4"}}};
}

// Where nobody but the log is told that it failed.
Request RenewalRequest() {
  return {.name = "renewal", .path = kTokenPath, .locks = {kGetLock, kRenewLock}};
}

Request LogoutRequest() { return {.name = "logout", .path = kLogoutPath}; }

// Of a logout: it says why it went wrong.
Request OfLogout(Request request, const char* reason) {
  request.unreached =
      Unreached{.out = std::string("Failed to logout: Failed to ") + reason + ", reqcode="};
  return request;
}

Request PasswordRequest() {
  return {.name = "login",
          .path = kPasswordLoginPath,
          .locks = {kLoginLock},
          .unreached = Unreached{
              .err = "nodelink-login: Failed to send the request (code 4)\n",
              .log = {SenderLine(kPasswordLoginPath),
                      "zomi_account_login Failed to send https request. err=[",
                      "account_service KIVOZOMIAccountLogin failed, email=anna@example.org"}}};
}

Request KeyRequest() {
  return {.name = "register",
          .path = kRegisterPath,
          .locks = {kLoginLock},
          .unreached = Unreached{
              .err = "nodelink-login: System error (code 15)\n",
              .log = {"Failed to register an API key at https://cloudservice.veltrix.example/",
                      "zomi_account_login Failed to get apikey",
                      "account_service KIVOZOMIAccountLogin failed, email=anna@example.org"}}};
}

Request ProfileRequest() {
  return {.name = "profile", .path = kQueryPath, .locks = {kLoginLock, kQueryLock}};
}

std::vector<Request> BrowserRequests(const std::optional<Unreached>& unreached = {}) {
  return {{"exchange", kTokenPath, {kLoginLock, kExchangeLock}, 0, unreached},
          {"identity", kExchangePath, {kLoginLock}, 0, unreached},
          ProfileRequest()};
}

}  // namespace

bool End::Fits(const ProcessResult& result) const {
  return result.signal == 0 && result.exit_status == status && Matches(out, result.out) &&
         Matches(err, result.err);
}

std::string Command::input() const {
  return is_login() && !by_browser ? std::string(person->password) + "\n" : "";
}

Command Query() {
  return Nodelink("query", "--query_account", {.out = "{*}"}, {.out = "Query account failed"});
}

Command Report() { return Nodelink("report", "--report_info", {}, {.status = 255}); }

Command Update() {
  return Nodelink("update", "--update", {}, {.out = "Failed to update crond: *"});
}

Command Logout() {
  Command command = Nodelink("logout", "--logout", {}, {.out = "Failed to logout: *"});
  command.ends_link = true;
  return command;
}

Command PasswordLogin(const Person& person) {
  Command command = Login("password_login", person);
  command.words.insert(command.words.end(), {"--password", person.email});
  return command;
}

Command BrowserLogin(const Person& person) {
  Command command = Login("browser_login", person);
  command.words.emplace_back("--browser");
  command.by_browser = true;
  return command;
}

std::unique_ptr<BackgroundProcess> Start(const Command& command,
                                         const std::vector<std::string>& prefix) {
  auto program = std::make_unique<BackgroundProcess>(WordsBehind(prefix, command),
                                                     ProcessOptions{.stdin_text = command.input()});
  if (command.by_browser) {
    SignInFor(*program, *command.person, program->WaitForLine("https://"));
  }
  program->CloseStdin();
  return program;
}

ProcessResult Run(const Command& command, const std::vector<std::string>& prefix,
                  std::chrono::milliseconds limit) {
  const std::vector<std::string> words = WordsBehind(prefix, command);
  if (!command.by_browser) {
    return RunProcess(words, {.stdin_text = command.input(), .time_limit = limit});
  }
  BackgroundProcess login(words, {.time_limit = limit});
  try {
    SignInFor(login, *command.person, login.WaitForLine("https://", kTimeToShowTheAddress));
  } catch (const std::runtime_error&) {  // it ended, or shows nothing: its end says the rest
  }
  login.CloseStdin();
  return login.Wait();
}

Transport Request::transport() const {
  const std::string_view asked = path;
  if (asked == kRegisterPath) return Transport::kPlatform;
  return asked == kTokenPath || asked == kExchangePath || asked == kGrantPath ||
                 asked == kLogoutPath
             ? Transport::kOauth
             : Transport::kDeviceApi;
}

const char* Request::host() const {
  const std::string_view asked = path;
  if (asked == kRegisterPath) return "cloudservice.veltrix.example";
  return asked == kTokenPath ? "identity.veltrix.example" : "account.veltrix.example";
}

const std::vector<Flow>& Flows() {
  static const std::vector<Flow> flows = {
      {.name = "query",
       .command = Query(),
       .stored = Stored::kOldProfile,
       .requests = {QueryRequest()},
       .disturbed = {Way::kItself, Way::kWorker, Way::kDeserted, Way::kForeign}},
      {.name = "query_refused",
       .command = Query(),
       .stored = Stored::kOldProfile,
       .link_is_over = true,
       .requests = {{"query", kQueryPath, {kQueryLock}}}},
      {.name = "password_login",
       .command = PasswordLogin(kAnna),
       .stored = Stored::kNothing,
       .requests = {KeyRequest(), {"login", kPasswordLoginPath, {kLoginLock}}, ProfileRequest()},
       .disturbed = {Way::kItself, Way::kWorker}},
      {.name = "password_login_again",
       .command = PasswordLogin(kAnna),
       .stored = Stored::kOldProfile,
       .requests = {PasswordRequest(), ProfileRequest()}},
      {.name = "password_login_other",
       .command = PasswordLogin(kBen),
       .stored = Stored::kLink,
       .requests = {{"login", kPasswordLoginPath, {kLoginLock}}, ProfileRequest()}},
      {.name = "browser_login",
       .command = BrowserLogin(kAnna),
       .stored = Stored::kNothing,
       .requests = BrowserRequests(),
       .disturbed = {Way::kItself}},
      {.name = "browser_login_other",
       .command = BrowserLogin(kBen),
       .stored = Stored::kLink,
       .requests = BrowserRequests(
           Unreached{.out = "Open this address",
                     .err = "nodelink-login: Failed to get the response (code 5)\n"})},
      {.name = "browser_login_failing",
       .command = BrowserLogin(kBen),
       .stored = Stored::kLink,
       .said = {{kQueryPath, 500, "busy"}},
       .requests = {ProfileRequest()}},
      {.name = "browser_login_refused",
       .command = BrowserLogin(kBen),
       .stored = Stored::kLink,
       .said = {{kQueryPath, 200, R"({"code":"badauth"})"}},
       .requests = {ProfileRequest()}},
      {.name = "renewal",
       .command = Report(),
       .stored = Stored::kExpiredTokens,
       .requests = {RenewalRequest()},
       .disturbed = {Way::kItself, Way::kWorker, Way::kDeserted},
       .saves_tokens = true},
      {.name = "grant",
       .command = Report(),
       .stored = Stored::kNoTokens,
       .requests = {{"grant", kGrantPath}, {"exchange", kTokenPath, {kExchangeLock}}}},
      {.name = "rescue",
       .command = Report(),
       .stored = Stored::kRevokedTokens,
       .requests = {RenewalRequest(),
                    {"grant", kGrantPath},
                    {.name = "exchange", .path = kTokenPath, .locks = {kExchangeLock}, .skip = 1}},
       .disturbed = {Way::kItself},
       .may_log_out = true},
      {.name = "rescue_refused",
       .command = Report(),
       .stored = Stored::kRevokedTokens,
       .link_is_over = true,
       .said = {{kReportPath, 200, R"({"code":"good"})"}, kLogoutIsGood},
       .requests = {RenewalRequest(), {"grant", kGrantPath}, LogoutRequest()}},
      {.name = "report",
       .command = Report(),
       .stored = Stored::kOldSchedule,
       .requests = {ReportRequest()},
       .disturbed = {Way::kItself, Way::kForeign}},
      {.name = "report_refused",
       .command = Report(),
       .stored = Stored::kLink,
       .link_is_over = true,
       .said = {kLogoutIsGood},
       .requests = {{"report", kReportPath}, LogoutRequest()}},
      {.name = "report_refused_with_renewal",
       .command = Report(),
       .stored = Stored::kExpiredTokens,
       .link_is_over = true,
       .said = {kLogoutIsGood},
       .requests = {RenewalRequest()}},
      {.name = "report_not_found",
       .command = Report(),
       .stored = Stored::kLink,
       .link_is_over = true,
       .said = {{kReportPath, 200, R"({"code":"account_not_found"})"}, kLogoutIsGood},
       .requests = {{"report", kReportPath}, LogoutRequest()}},
      {.name = "logout",
       .command = Logout(),
       .stored = Stored::kLink,
       .requests = {OfLogout(LogoutRequest(), "logout")},
       .disturbed = {Way::kItself}},
      {.name = "logout_with_renewal",
       .command = Logout(),
       .stored = Stored::kExpiredTokens,
       .requests = {OfLogout(RenewalRequest(), "renew token"), LogoutRequest()}},
      {.name = "logout_with_grant",
       .command = Logout(),
       .stored = Stored::kNoTokens,
       .requests = {OfLogout({"grant", kGrantPath}, "grant by authkey"),
                    {"exchange", kTokenPath, {kExchangeLock}},
                    LogoutRequest()}},
      {.name = "update",
       .command = Update(),
       .stored = Stored::kOldCrontab,
       .disturbed = {Way::kItself}},
  };
  return flows;
}

std::set<std::string> RequestPaths() {
  std::set<std::string> paths;
  for (const Flow& flow : Flows()) {
    for (const Request& request : flow.requests) paths.insert(request.path);
  }
  return paths;
}

}  // namespace lab
