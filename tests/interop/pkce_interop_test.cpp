// The sign-in and the tokens against a server by others: what this program and the development
// cloud understand alike could still be a shared misunderstanding.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <optional>
#include <regex>
#include <stdexcept>
#include <string>
#include <vector>

#include "core/error_code.h"
#include "core/json.h"
#include "core/zomi_exception.h"
#include "lab/files.h"
#include "lab/process.h"
#include "lab/syslog_sink.h"
#include "pkce/pkce_client.h"
#include "pkce/pkce_config.h"
#include "tests/interop/account_server.h"
#include "tests/interop/browser.h"
#include "tests/interop/provider.h"
#include "tools/sign_in.h"

namespace interop {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::EndsWith;
using testing::FieldsAre;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::StartsWith;

constexpr char kTokenFile[] = "/usr/kivo/etc/veltrix-account/private/login_token.json";
constexpr char kRecord[] = "/usr/kivo/etc/veltrix-account/private/user.conf";
constexpr char kLoginProgram[] = "/usr/kivo/bin/nodelink-login";
constexpr char kRefusedExchange[] =
    "Failed to exchange token, code=400, resp={\"error\":\"invalid_grant\"";
constexpr char kRefusedRenewal[] =
    "Failed to renew token, refresh_token is expired or revoked, code=400, "
    "resp={\"error\":\"invalid_grant\"";
constexpr char kUserinfo[] = "https://identity.veltrix.example/me";

Json::Value Parse(const std::string& text) {
  Json::Value value;
  if (!nodelink::json::fromString(text, value)) throw std::runtime_error("no JSON: " + text);
  return value;
}

// The value of the query's field `name`; empty when it has none.
std::string QueryField(const std::string& address, const std::string& name) {
  std::smatch match;
  return std::regex_search(address, match, std::regex("[?&]" + name + "=([^&]*)")) ? match[1]
                                                                                   : std::string();
}

std::string WithoutQueryField(const std::string& address, const std::string& name) {
  return std::regex_replace(address, std::regex("&" + name + "=[^&]*"), "");
}

struct Failure {
  std::uint32_t code = nodelink::kSuccess;
  std::string text;
};

// How `flow` fails.
Failure FailureOf(const std::function<void()>& flow) {
  try {
    flow();
  } catch (const nodelink::ZomiException& failure) {
    return {failure.code(), failure.what()};
  }
  return {};
}

Json::Value Tokens() { return Parse(test_files::Read(kTokenFile)); }

std::string StoredToken(const char* name) { return Tokens()[name].asString(); }

// The tokens of the file's content `content`, as if they had been stored long ago.
void StoreAsExpired(const std::string& content) {
  Json::Value tokens = Parse(content);
  tokens["created_at"] = 0;
  if (!nodelink::json::toFile(tokens, kTokenFile)) {
    throw std::runtime_error("cannot write the token file");
  }
}

// What the server tells whoever holds an access token: the account, or the HTTP status.
std::string AccountOf(const std::string& access_token) {
  const lab::ProcessResult result = lab::RunProcess(
      {"curl", "--silent", "--show-error", "--fail", "--oauth2-bearer", access_token, kUserinfo});
  return result.exit_status == 0 ? Parse(result.out)["sub"].asString() : result.err;
}

class PkceInteropTest : public testing::Test {
 protected:
  void SetUp() override {
    if (std::getenv("LAB_INSIDE") == nullptr) {
      throw std::runtime_error("this test writes to the appliance's paths: run it with lab/run");
    }
    if (const auto reason = WhyUnavailable()) {
      GTEST_SKIP() << "no server to test against: " << *reason;
    }
    const auto authority = devcloud::Authority::Make("interop");
    test_files::Write("/etc/ssl/certs/ca-certificates.crt", authority.certificate_pem());
    test_files::Write(
        "/etc/hosts",
        "127.0.0.1 localhost identity.veltrix.example\n127.0.0.2 account.veltrix.example\n");
    account_server_.emplace(authority);
    config_ = nodelink::LoadPkceLoginConfig();
    provider_.emplace(authority, config_);
    client_.SetConfig(config_);
  }

  std::string redirect_uri() const { return config_["login_redirect_uri"].asString(); }

  Browser MakeBrowser() const { return Browser(redirect_uri()); }

  // What the browser was sent back to after a whole sign-in.
  std::string PlayBrowser(const nodelink_login::SignIn& sign_in) {
    return MakeBrowser().SignIn(nodelink_login::SignInAddress(config_, sign_in), kEmail);
  }

  void Exchange(const std::string& code, const std::string& verifier) {
    client_.PkceLogin(code, verifier, redirect_uri());
  }

  // A whole login without the program.
  void LogIn() {
    const auto sign_in = nodelink_login::BeginSignIn();
    Exchange(nodelink_login::ReadCode(PlayBrowser(sign_in), sign_in), sign_in.pair.verifier);
  }

  // Runs nodelink-login until it has read what `browse` makes of its sign-in address.
  static lab::ProcessResult RunLoginProgram(
      const std::function<std::string(const std::string& address)>& browse) {
    lab::BackgroundProcess program({kLoginProgram, "--browser"});
    program.Write(browse(program.WaitForLine("https://")) + "\n");
    return program.Wait();
  }

  lab::ProcessResult LogInWithTheProgram() {
    return RunLoginProgram(
        [this](const std::string& address) { return MakeBrowser().SignIn(address, kEmail); });
  }

  void ExpectRefusedExchange(const std::string& code, const std::string& verifier) {
    EXPECT_THAT(FailureOf([&] { Exchange(code, verifier); }),
                FieldsAre(nodelink::kBadResponse, StartsWith(kRefusedExchange)));
  }

  // A renewal with the refresh token of the file's content `content` is refused, and changes
  // nothing.
  void ExpectRefusedRenewal(const std::string& content) {
    StoreAsExpired(content);
    const std::string before = test_files::Read(kTokenFile);
    EXPECT_THAT(FailureOf([this] { (void)client_.GetAccessToken(); }),
                FieldsAre(nodelink::kAuthFailed, StartsWith(kRefusedRenewal)));
    EXPECT_EQ(test_files::Read(kTokenFile), before);
  }

  std::vector<std::string> Log() {
    std::vector<std::string> texts;
    for (const lab::LogLine& line : sink_.Lines()) texts.push_back(line.text);
    return texts;
  }

  lab::SyslogSink sink_;
  Json::Value config_;
  std::optional<AccountServer> account_server_;
  std::optional<Provider> provider_;
  nodelink::PkceClient client_{"login"};
};

TEST_F(PkceInteropTest, BrowserLoginLinksTheDevice) {
  const lab::ProcessResult result = LogInWithTheProgram();
  EXPECT_EQ(result.exit_status, 0) << result.err;
  EXPECT_THAT(result.out, EndsWith("Logged in as anna@example.org\n"));
  EXPECT_THAT(account_server_->BearerTokens(), ElementsAre(StoredToken("access_token")));
  EXPECT_THAT(test_files::Read(kRecord), HasSubstr("zomiID=\"anna@example.org\"\n"));
}

TEST_F(PkceInteropTest, SignInAddressCarriesWhatTheServerNeeds) {
  std::string address;
  std::string reply;
  (void)RunLoginProgram([&](const std::string& printed) {
    address = printed;
    return reply = MakeBrowser().SignIn(address, kEmail);
  });
  EXPECT_THAT(address, StartsWith(config_["auth_endpoint"].asString() + "?response_type=code&"));
  EXPECT_EQ(QueryField(address, "client_id"), config_["client_id"].asString());
  EXPECT_EQ(QueryField(address, "code_challenge_method"), "S256");
  EXPECT_THAT(QueryField(address, "code_challenge"), MatchesRegex("[A-Za-z0-9_-]{43}"));
  EXPECT_THAT(QueryField(address, "state"), testing::Not(testing::IsEmpty()));
  EXPECT_EQ(QueryField(reply, "state"), QueryField(address, "state"));
}

// Shows that the server holds the client to PKCE, so that the other tests say something.
TEST_F(PkceInteropTest, SignInWithoutChallengeIsRefusedByTheServer) {
  const auto sign_in = nodelink_login::BeginSignIn();
  const std::string address = nodelink_login::SignInAddress(config_, sign_in);
  const std::string reply = MakeBrowser().SignIn(
      WithoutQueryField(WithoutQueryField(address, "code_challenge"), "code_challenge_method"),
      kEmail);
  EXPECT_EQ(QueryField(reply, "error"), "invalid_request");
  EXPECT_EQ(FailureOf([&] { (void)nodelink_login::ReadCode(reply, sign_in); }).code,
            nodelink::kAuthFailed);
}

TEST_F(PkceInteropTest, CancelledSignInFailsTheLogin) {
  const lab::ProcessResult result =
      RunLoginProgram([this](const std::string& address) { return MakeBrowser().Cancel(address); });
  EXPECT_EQ(result.exit_status, 1);
  EXPECT_THAT(result.err, EndsWith("(code 14)\n"));
  EXPECT_FALSE(client_.HasToken());
}

TEST_F(PkceInteropTest, ReplyOfAnotherSignInFailsTheLogin) {
  const lab::ProcessResult result = RunLoginProgram(
      [this](const std::string&) { return PlayBrowser(nodelink_login::BeginSignIn()); });
  EXPECT_EQ(result.exit_status, 1);
  EXPECT_THAT(result.err, EndsWith("(code 1)\n"));
  EXPECT_FALSE(client_.HasToken());
}

TEST_F(PkceInteropTest, ExchangeStoresTokensThatTheServerKnows) {
  LogIn();
  EXPECT_EQ(client_.GetAccessToken(), StoredToken("access_token"));
  EXPECT_EQ(AccountOf(client_.GetAccessToken()), kEmail);
  EXPECT_THAT(client_.GetIdToken(), MatchesRegex("[A-Za-z0-9_-]+\\.[A-Za-z0-9_-]+\\."
                                                 "[A-Za-z0-9_-]+"));
  EXPECT_FALSE(StoredToken("refresh_token").empty());
}

TEST_F(PkceInteropTest, ValidTokenIsNotRenewed) {
  LogIn();
  const std::string content = test_files::Read(kTokenFile);
  (void)client_.GetAccessToken();
  EXPECT_EQ(test_files::Read(kTokenFile), content);
  EXPECT_EQ(provider_->Stop(), "granted authorization_code\n");
}

TEST_F(PkceInteropTest, EachRenewalGivesNewTokens) {
  ASSERT_EQ(LogInWithTheProgram().exit_status, 0);
  for (int renewal = 1; renewal <= 2; ++renewal) {
    SCOPED_TRACE("renewal " + std::to_string(renewal));
    const Json::Value before = Tokens();
    StoreAsExpired(test_files::Read(kTokenFile));
    const std::string access_token = client_.GetAccessToken();
    EXPECT_NE(access_token, before["access_token"].asString());
    EXPECT_EQ(access_token, StoredToken("access_token"));
    EXPECT_NE(StoredToken("refresh_token"), before["refresh_token"].asString());
    EXPECT_GE(Tokens()["created_at"].asInt64(), before["created_at"].asInt64());
    EXPECT_EQ(AccountOf(access_token), kEmail);
  }
  EXPECT_EQ(provider_->Stop(),
            "granted authorization_code\ngranted refresh_token\ngranted refresh_token\n");
}

TEST_F(PkceInteropTest, WrongVerifierIsRefused) {
  LogIn();
  const std::string content = test_files::Read(kTokenFile);
  const auto sign_in = nodelink_login::BeginSignIn();
  const std::string code = nodelink_login::ReadCode(PlayBrowser(sign_in), sign_in);
  const std::string other_verifier = nodelink_login::BeginSignIn().pair.verifier;
  ExpectRefusedExchange(code, other_verifier);
  EXPECT_EQ(test_files::Read(kTokenFile), content);
  EXPECT_THAT(provider_->Stop(), EndsWith("refused authorization_code: invalid_grant\n"));
}

TEST_F(PkceInteropTest, RefusedFirstExchangeStoresNothing) {
  const auto sign_in = nodelink_login::BeginSignIn();
  const std::string code = nodelink_login::ReadCode(PlayBrowser(sign_in), sign_in);
  ExpectRefusedExchange(code, nodelink_login::BeginSignIn().pair.verifier);
  EXPECT_FALSE(client_.HasToken());
}

TEST_F(PkceInteropTest, CodeIsGoodForOneExchange) {
  const auto sign_in = nodelink_login::BeginSignIn();
  const std::string code = nodelink_login::ReadCode(PlayBrowser(sign_in), sign_in);
  Exchange(code, sign_in.pair.verifier);
  const std::string content = test_files::Read(kTokenFile);
  ExpectRefusedExchange(code, sign_in.pair.verifier);
  EXPECT_EQ(test_files::Read(kTokenFile), content);
}

TEST_F(PkceInteropTest, ReusedRefreshTokenIsRefused) {
  LogIn();
  const std::string first = test_files::Read(kTokenFile);
  StoreAsExpired(first);
  (void)client_.GetAccessToken();
  const std::string second = test_files::Read(kTokenFile);
  ExpectRefusedRenewal(first);
  EXPECT_THAT(Log(), Contains(StartsWith(std::string("pkce_client:136 ") + kRefusedRenewal)));
  // The server now distrusts all tokens of that sign-in.
  ExpectRefusedRenewal(second);
}

TEST_F(PkceInteropTest, ReportsAtTheSameTimeRenewOnce) {
  ASSERT_EQ(LogInWithTheProgram().exit_status, 0);
  StoreAsExpired(test_files::Read(kTokenFile));
  const std::vector<std::string> command = {"/usr/kivo/bin/nodelink", "--report_info"};
  std::array<lab::BackgroundProcess, 4> reports{
      lab::BackgroundProcess(command), lab::BackgroundProcess(command),
      lab::BackgroundProcess(command), lab::BackgroundProcess(command)};
  for (lab::BackgroundProcess& report : reports) {
    EXPECT_EQ(report.Wait().exit_status, 0);
  }
  EXPECT_EQ(AccountOf(StoredToken("access_token")), kEmail);
  EXPECT_EQ(provider_->Stop(), "granted authorization_code\ngranted refresh_token\n");
}

}  // namespace
}  // namespace interop
