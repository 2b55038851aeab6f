#include "tests/e2e/https_flow.h"

#include <unistd.h>

#include <ctime>
#include <utility>

namespace {

constexpr char kAccountHost[] = "account.veltrix.example";
constexpr char kIdentityHost[] = "identity.veltrix.example";
constexpr char kCloudHost[] = "cloudservice.veltrix.example";
constexpr char kBadAddress[] = "127.0.0.2";
constexpr char kTokenTexts[] =
    R"("access_token":"access-secret","id_token":"id-secret","refresh_token":"refresh-secret")";

std::string SenderLine(const std::string& path) {
  return "zomi_https_req_send https://" + std::string(kAccountHost) + path +
         ", Failed to curl perform, code=";
}

const std::vector<std::string> kQuery = {"/usr/kivo/bin/nodelink", "--query_account"};
const std::vector<std::string> kReport = {"/usr/kivo/bin/nodelink", "--report_info"};
const std::vector<std::string> kLogout = {"/usr/kivo/bin/nodelink", "--logout"};
const std::vector<std::string> kPasswordLogin = {"/usr/kivo/bin/nodelink-login", "--password",
                                                 kEmail};
const std::vector<std::string> kBrowserLogin = {"/usr/kivo/bin/nodelink-login", "--browser"};

HttpsFlow Query() {
  const char* path = "/device/api/user/query";
  return {"query",
          Transport::kDeviceApi,
          kAccountHost,
          path,
          kQuery,
          "",
          Stored::kLink,
          "Query account failed",
          "",
          0,
          "Query account failed",
          "",
          {SenderLine(path), "zomi_account_query_info Failed to send https request. err=["}};
}

HttpsFlow Report() {
  const char* path = "/device/api/report";
  return {"report",
          Transport::kDeviceApi,
          kAccountHost,
          path,
          kReport,
          "",
          Stored::kLink,
          "",
          "",
          255,
          "",
          "",
          {SenderLine(path), "zomi_report_info Failed to send https request. err=[",
           "nodelink Failed to report Zomi info, code=4"}};
}

HttpsFlow PasswordLogin() {
  const char* path = "/device/api/password_login";
  return {"password_login",
          Transport::kDeviceApi,
          kAccountHost,
          path,
          kPasswordLogin,
          std::string(kPassword) + "\n",
          Stored::kLink,
          "",
          "nodelink-login: ",
          1,
          "",
          "nodelink-login: Failed to send the request (code 4)\n",
          {SenderLine(path), "zomi_account_login Failed to send https request. err=[",
           "account_service KIVOZOMIAccountLogin failed, email=anna@example.org"}};
}

HttpsFlow Registration() {
  return {"key_registration",
          Transport::kPlatform,
          kCloudHost,
          "/cloudservice/api/v1/apikey/register",
          kPasswordLogin,
          std::string(kPassword) + "\n",
          Stored::kNothing,
          "",
          "nodelink-login: ",
          1,
          "",
          "nodelink-login: System error (code 15)\n",
          {"Failed to register an API key at https://cloudservice.veltrix.example/",
           "zomi_account_login Failed to get apikey",
           "account_service KIVOZOMIAccountLogin failed, email=anna@example.org"}};
}

// A step of a login in a browser, after the address has been shown.
HttpsFlow BrowserLoginStep(const char* name, const char* host, const char* path) {
  return {name,
          Transport::kOauth,
          host,
          path,
          kBrowserLogin,
          "code-secret\n",
          Stored::kLink,
          "Open this address",
          "nodelink-login: ",
          1,
          "Open this address",
          "nodelink-login: Failed to get the response (code 5)\n",
          {}};
}

HttpsFlow CodeExchange() { return BrowserLoginStep("code_exchange", kIdentityHost, kTokenPath); }

HttpsFlow KeyExchange() {
  return BrowserLoginStep("key_exchange", kAccountHost,
                          "/oauth2/api/v1/device/core/authkey/exchange");
}

HttpsFlow Grant() {
  return {"grant",
          Transport::kOauth,
          kAccountHost,
          "/migration/api/v1/device/core/authorization_code/grant",
          kLogout,
          "",
          Stored::kLink,
          "Failed to logout: ",
          "",
          0,
          "Failed to logout: Failed to grant by authkey, reqcode=",
          "",
          {}};
}

HttpsFlow Renewal() {
  return {"renewal",
          Transport::kOauth,
          kIdentityHost,
          kTokenPath,
          kLogout,
          "",
          Stored::kExpiredTokens,
          "Failed to logout: ",
          "",
          0,
          "Failed to logout: Failed to renew token, reqcode=",
          "",
          {}};
}

HttpsFlow Logout() {
  return {"logout",
          Transport::kOauth,
          kAccountHost,
          "/device/api/logout",
          kLogout,
          "",
          Stored::kValidTokens,
          "Failed to logout: ",
          "",
          0,
          "Failed to logout: Failed to logout, reqcode=",
          "",
          {}};
}

// Every host at home, but `bad` where the bad server listens.
void MoveHost(const std::string& bad) {
  std::string text = "127.0.0.1 localhost\n";
  for (const std::string& host : devcloud::DefaultHosts()) {
    text += (host == bad ? kBadAddress : "127.0.0.1") + (" " + host) + "\n";
  }
  test_files::Write("/etc/hosts", text);
}

void WriteTokens(long age) {
  test_files::Write(kTokens,
                    std::string("{") + kTokenTexts + ",\"expires_in\":3600,\"created_at\":" +
                        std::to_string(std::time(nullptr) - age) + "}\n",
                    0600);
}

}  // namespace

std::ostream& operator<<(std::ostream& out, const HttpsFlow& flow) { return out << flow.name; }

const std::vector<HttpsFlow>& HttpsFlows() {
  static const std::vector<HttpsFlow> flows = {Query(),        Report(),       PasswordLogin(),
                                               Registration(), CodeExchange(), KeyExchange(),
                                               Grant(),        Renewal(),      Logout()};
  return flows;
}

BadHost::BadHost(const std::string& host, const devcloud::TlsSettings& tls)
    : server_({.address = kBadAddress, .port = 443, .tls = tls},
              [this](const devcloud::Request&) { return Answer(); }) {
  MoveHost(host);
}

void BadHost::SetAnswer(devcloud::Response answer, std::function<void()> look) {
  const std::lock_guard lock(mutex_);
  answer_ = std::move(answer);
  look_ = std::move(look);
}

devcloud::Response BadHost::Answer() {
  const std::lock_guard lock(mutex_);
  if (look_) {
    look_();
  }
  return answer_;
}

HttpsFlowTest::HttpsFlowTest() : bad_(GetParam().host, Tls({})) {
  LinkDevice();
  record_ = test_files::Read(kRecord) + "zomiID=\"" + kEmail + "\"\nlast_query_time=\"0\"\n";
  // What the identity server says to those flows that get past it.
  devcloud::FaultRule rule;
  rule.path = kTokenPath;
  rule.status = 200;
  rule.body = std::string("{") + kTokenTexts + ",\"expires_in\":3600}";
  cloud_.faults().Add(rule);
}

void HttpsFlowTest::Prepare() {
  test_files::Write(kRecord, record_, 0600);
  for (const char* path : {kTokens, kApiKeyFile, kReportJob}) {
    unlink(path);
  }
  if (GetParam().stored != Stored::kNothing) {
    test_files::Write(kApiKeyFile, "api-key-secret\n", 0600);
  }
  if (GetParam().stored == Stored::kValidTokens) {
    WriteTokens(0);
  } else if (GetParam().stored == Stored::kExpiredTokens) {
    WriteTokens(7200);
  }
}

lab::ProcessResult HttpsFlowTest::RunFlow(const std::vector<std::string>& prefix) {
  std::vector<std::string> words = prefix;
  words.insert(words.end(), GetParam().command.begin(), GetParam().command.end());
  return lab::RunProcess(words, {.stdin_text = GetParam().input});
}

// Without what a browser login has stored before it comes to the request in question.
std::string HttpsFlowTest::State() {
  const bool stores_tokens = std::string(GetParam().name) == "key_exchange";
  return test_files::Read(kRecord) + "|" + (stores_tokens ? "" : test_files::Read(kTokens)) + "|" +
         test_files::Read(kApiKeyFile) + "|" + test_files::Read(kReportJob);
}

void HttpsFlowTest::ExpectFailure(const lab::ProcessResult& result) {
  EXPECT_FALSE(result.timed_out);
  EXPECT_EQ(result.signal, 0);
  EXPECT_EQ(result.exit_status, GetParam().exit_status);
  EXPECT_TRUE(result.out.starts_with(GetParam().out)) << result.out.substr(0, 200);
  EXPECT_TRUE(result.err.starts_with(GetParam().err)) << result.err.substr(0, 200);
}
