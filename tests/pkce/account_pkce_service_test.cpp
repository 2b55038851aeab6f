#include "pkce/account_pkce_service.h"

#include <algorithm>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "core/error_code.h"
#include "core/json.h"
#include "core/zomi_exception.h"
#include "lab/users.h"
#include "tests/support/child.h"
#include "tests/support/fail_each_call.h"
#include "tests/support/session_fixture.h"

namespace nodelink {
namespace {

using devcloud::CertificateKind;
using devcloud::Delivery;
using devcloud::Request;
using devcloud::Response;
using fake_hos::PluginRun;
using session::Catch;
using session::kExchangePath;
using session::kGrantPath;
using session::kLinkedRecord;
using session::kLogoutPath;
using session::kNow;
using session::kQueryPath;
using session::kTokenPath;
using session::NamedText;
using session::Thrown;
using session::TokenAnswer;
using session::TokenFile;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::Not;
using testing::StartsWith;

constexpr char kParseLine[] = "include/internal/json_utils:13 Failed to parse json: ";
constexpr char kIdentityAnswer[] = R"({"user_id":"4711","auth_key":"key of 4711"})";

const PluginRun kLogin4{"zomi", "zomi/login", 4};
const PluginRun kLogin5{"zomi", "zomi/login", 5};
const PluginRun kLogout4{"zomi", "zomi/logout", 4};

class AccountPkceServiceTest : public SessionTest {
 protected:
  AccountPkceServiceTest() { AnswerWell(); }

  void AnswerWell() {
    server_.Answer(kTokenPath, 200, TokenAnswer("new"));
    server_.Answer(kGrantPath, 200, R"({"grant_code":"granted"})");
    server_.Answer(kExchangePath, 200, kIdentityAnswer);
    server_.Answer(kQueryPath, 200, session::ProfileAnswer());
    server_.Answer(kLogoutPath, 200, R"({"code":"good"})");
  }

  static std::string OldTokens() { return TokenFile("old", kNow); }
  static std::string ExpiredTokens() { return TokenFile("old", 0); }

  static void Link() { WriteRecord(kLinkedRecord); }

  // The paths of the requests so far, in order.
  [[nodiscard]] std::vector<std::string> Paths() const {
    std::vector<std::string> paths;
    for (const Request& request : server_.requests()) paths.push_back(request.path);
    return paths;
  }
};

std::string RecordValue(const std::string& record, const std::string& key) {
  const std::string start = key + "=\"";
  const std::size_t begin = record.find(start);
  return begin == std::string::npos
             ? "(none)"
             : record.substr(begin + start.size(),
                             record.find('"', begin + start.size()) - begin - start.size());
}

bool IsKnownCode(std::uint32_t code) {
  return (code >= 1 && code <= 8) || (code >= 14 && code <= 27 && code != 21);
}

// An answer, and what the flow must make of it.
struct BadAnswer {
  std::string name;
  Response response;
  Thrown thrown;
  std::vector<std::string> log = {};
};

void PrintTo(const BadAnswer& answer, std::ostream* stream) { *stream << answer.name; }

std::string NameOfAnswer(const testing::TestParamInfo<BadAnswer>& test) { return test.param.name; }

// One that fails with "MESSAGE, code=STATUS, resp=TEXT".
BadAnswer Failing(const std::string& name, int status, const std::string& text, std::uint32_t code,
                  const std::string& message) {
  return {name,
          {.status = status, .body = text},
          {code, message + ", code=" + std::to_string(status) + ", resp=" + text}};
}

void AppendNoJson(std::vector<BadAnswer>& answers) {
  for (const NamedText& text : session::TextsThatAreNoJson()) {
    answers.push_back({"NoJson" + text.name,
                       {.body = text.text},
                       {kWrongJsonFormat, "Wrong JSON format"},
                       {kParseLine + text.text}});
  }
}

struct BadTransfer {
  std::string name;
  devcloud::Fault fault = {};
  CertificateKind certificate = CertificateKind::kGood;
};

void PrintTo(const BadTransfer& transfer, std::ostream* stream) { *stream << transfer.name; }

const std::vector<BadTransfer>& BadTransfers() {
  static const std::vector<BadTransfer> transfers = {
      {.name = "Dropped", .fault = {.delivery = Delivery::kDrop}},
      {.name = "Truncated", .fault = {.delivery = Delivery::kTruncate}},
      {.name = "Late", .fault = {.delay = std::chrono::hours(1)}},
      {.name = "Endless", .fault = {.delivery = Delivery::kEndless}},
      {.name = "Expired", .certificate = CertificateKind::kExpired},
      {.name = "WrongName", .certificate = CertificateKind::kWrongName},
      {.name = "UnknownAuthority", .certificate = CertificateKind::kUnknownAuthority}};
  return transfers;
}

class FlowTransferTest : public AccountPkceServiceTest,
                         public testing::WithParamInterface<BadTransfer> {
 protected:
  FlowTransferTest() {
    CutTimeLimit();
    for (const char* path : {kGrantPath, kExchangePath, kLogoutPath}) {
      server_.Answer(path, Response{.body = "{}", .fault = GetParam().fault});
    }
    if (GetParam().certificate != CertificateKind::kGood) {
      server_.Show({.certificate = GetParam().certificate});
    }
    Link();
    WriteTokens(OldTokens());
  }

  void ExpectFailure(const Thrown& thrown, const std::string& what) {
    EXPECT_EQ(thrown.code, kBadResponse);
    EXPECT_THAT(thrown.message, MatchesRegex("Failed to " + what + ", reqcode=[0-9]+, reqmsg=.+"));
    EXPECT_EQ(ReadRecord(), kLinkedRecord);
    EXPECT_EQ(ReadTokens(), OldTokens());
    EXPECT_THAT(Log(), IsEmpty());
    EXPECT_THAT(platform().exec_runs, IsEmpty());
  }
};

TEST_P(FlowTransferTest, FailsTheGrant) {
  ExpectFailure(Catch([] { AccountPkceServiceImpl().GrantByAuthKey(); }), "grant by authkey");
}

TEST_P(FlowTransferTest, FailsTheExchange) {
  ExpectFailure(Catch([] { (void)AccountPkceServiceImpl().ExchangeAuthKey("t"); }),
                "exchange authkey");
}

TEST_P(FlowTransferTest, FailsTheLogout) {
  ExpectFailure(Catch([] { AccountPkceServiceImpl().Logout(AccessToken::kInclude); }), "logout");
}

INSTANTIATE_TEST_SUITE_P(All, FlowTransferTest, testing::ValuesIn(BadTransfers()),
                         [](const auto& test) { return test.param.name; });

// --- construction ---------------------------------------------------------------------------

TEST_F(AccountPkceServiceTest, NeedsTheLoginConfiguration) {
  std::filesystem::remove(session::kLoginConfigPath);
  EXPECT_EQ(Catch([] { AccountPkceServiceImpl(); }), (Thrown{2, "Wrong JSON format"}));
}

TEST_F(AccountPkceServiceTest, NeedsTheDevicesSerialNumberAndMacAddress) {
  platform().FailNext("KLIBGetSerialNumber");
  EXPECT_EQ(Catch([] { AccountPkceServiceImpl(); }).code, kNoSerialNumber);
  platform().FailNext("KIVOHsinfoCloudServiceGetMacAddress");
  EXPECT_EQ(Catch([] { AccountPkceServiceImpl(); }).code, kNoMacAddress);
}

TEST_F(AccountPkceServiceTest, IsUsableThroughItsInterface) {
  WriteTokens(OldTokens());
  const std::unique_ptr<AccountPkceService> service = std::make_unique<AccountPkceServiceImpl>();
  EXPECT_EQ(service->GetAccessTokenWithRescue(), "old-access");
}

// --- the grant by auth key ------------------------------------------------------------------

class GrantTest : public AccountPkceServiceTest {
 protected:
  GrantTest() { Link(); }

  static void Grant() { AccountPkceServiceImpl().GrantByAuthKey(); }

  // What follows the auth key in the grant's form when the configuration has this scope.
  std::string ScopesSentFor(const std::string& scope) {
    test_files::Write(session::kLoginConfigPath,
                      R"({"token_endpoint_path":"/oauth2/token","scope":")" + scope + "\"}");
    Grant();
    const std::string body = server_.OnlyRequest(kGrantPath).body;
    return body.substr(body.find("&scopes"));
  }

  static void ExpectNothingChanged() {
    EXPECT_EQ(ReadRecord(), kLinkedRecord);
    EXPECT_EQ(ReadTokens(), OldTokens());
  }
};

TEST_F(GrantTest, SendsTheFormOfTheGrant) {
  Grant();
  const Request request = server_.OnlyRequest(kGrantPath);
  EXPECT_EQ(request.body,
            "client_id=login-client"
            "&redirect_url=https%3A%2F%2Faccount.veltrix.example%2Flogin%2Fback"
            "&state=1700000000"
            "&code_challenge=E9Melhoa2OwvFrEMTJguCHaoeK1t8URWbuGJSstw-cM"
            "&auth_key=key%20of%204711"
            "&scopes[]=openid&scopes[]=sn%3AFAKE123456789"
            "&scopes[]=mac%3A02%3A11%3A22%3A33%3A44%3A55");
  EXPECT_EQ(request.HeaderOr("X-Client-ID"), "login-client");
  EXPECT_EQ(request.HeaderOr("User-Agent"), session::kAgent);
  EXPECT_EQ(request.HeaderOr("Host"), "account.veltrix.example");
  EXPECT_EQ(request.CountHeaders("Authorization"), 0U);
}

TEST_F(GrantTest, TradesTheGrantedCodeForTokens) {
  Grant();
  EXPECT_THAT(Paths(), ElementsAre(kGrantPath, kTokenPath));
  EXPECT_EQ(server_.OnlyRequest(kTokenPath).body,
            "grant_type=authorization_code&client_id=login-client"
            "&redirect_uri=https%3A%2F%2Faccount.veltrix.example%2Flogin%2Fback"
            "&code=granted&code_verifier=dBjftJeZ4CVP-mB92K27uhbUJU1p1r_wW1gFWFOEjXk");
  EXPECT_THAT(ReadTokens(), HasSubstr("new-refresh"));
  EXPECT_EQ(ReadRecord(), kLinkedRecord);
}

TEST_F(GrantTest, TheGeneratorFillsBuffersOf44Bytes) {
  Grant();
  EXPECT_THAT(platform().calls("kivo_challenge_verifier_no_save"),
              ElementsAre(fake_hos::Call{"kivo_challenge_verifier_no_save", {"44", "44"}}));
}

TEST_F(GrantTest, EachWordOfTheScopeIsAnEntry) {
  EXPECT_EQ(ScopesSentFor("one two three"), "&scopes[]=one&scopes[]=two&scopes[]=three");
}

TEST_F(GrantTest, AnEmptyScopeIsOneEmptyEntry) { EXPECT_EQ(ScopesSentFor(""), "&scopes[]="); }

TEST_F(GrantTest, SpacesInARowSeparateOnce) {
  EXPECT_EQ(ScopesSentFor("one   two"), "&scopes[]=one&scopes[]=two");
}

TEST_F(GrantTest, OnlySpacesSeparate) {
  EXPECT_EQ(ScopesSentFor("one,two\\tthree"), "&scopes[]=one%2Ctwo%09three");
}

TEST_F(GrantTest, TheStateIsTheSecondOfTheGrant) {
  Grant();
  Grant();
  SetTime(kNow + 1);
  Grant();
  std::vector<std::string> states;
  for (const Request& request : server_.requests(kGrantPath)) {
    states.push_back(request.body.substr(request.body.find("state="), 16));
  }
  EXPECT_THAT(states, ElementsAre("state=1700000000", "state=1700000000", "state=1700000001"));
}

TEST_F(GrantTest, UserDefinedHostsAreAsked) {
  WriteRecord(std::string(kLinkedRecord) +
              "account_host=\"https://account.test.veltrix.example\"\n"
              "identity_host=\"https://localhost\"\n");
  Grant();
  EXPECT_THAT(server_.Targets(),
              ElementsAre(StartsWith("POST https://account.test.veltrix.example/migration/"),
                          "POST https://localhost/oauth2/token"));
}

TEST_F(GrantTest, AGrantCodeThatIsANumberIsItsText) {
  server_.Answer(kGrantPath, 200, R"({"grant_code":1234567890123})");
  Grant();
  EXPECT_THAT(server_.OnlyRequest(kTokenPath).body, HasSubstr("&code=1234567890123&"));
}

TEST_F(GrantTest, AHostileGrantCodeStaysOneValue) {
  server_.Answer(kGrantPath, 200, R"({"grant_code":"x&code_verifier=mine\r\nX-Evil: 1"})");
  Grant();
  const Request request = server_.OnlyRequest(kTokenPath);
  EXPECT_THAT(request.body, HasSubstr("&code=x%26code_verifier%3Dmine%0D%0AX-Evil%3A%201&"));
  EXPECT_EQ(request.CountHeaders("X-Evil"), 0U);
}

TEST_F(GrantTest, WithoutAChallengeNothingIsSent) {
  WriteTokens(OldTokens());
  platform().FailNext("kivo_challenge_verifier_no_save");
  EXPECT_EQ(Catch(Grant), (Thrown{6, "Failed to get code challenge & verifier"}));
  EXPECT_THAT(server_.requests(), IsEmpty());
  ExpectNothingChanged();
}

TEST_F(GrantTest, WithoutAUserAgentNothingIsSent) {
  WriteTokens(OldTokens());
  UserAgentFails() = true;
  EXPECT_EQ(Catch(Grant).code, kSystemError);
  EXPECT_THAT(server_.requests(), IsEmpty());
  ExpectNothingChanged();
}

TEST_F(GrantTest, ReadsTheConfigurationAnew) {
  AccountPkceServiceImpl service;
  std::filesystem::remove(session::kLoginConfigPath);
  EXPECT_EQ(Catch([&] { service.GrantByAuthKey(); }).code, kWrongJsonFormat);
  EXPECT_THAT(server_.requests(), IsEmpty());
}

TEST_F(GrantTest, TokensThatCannotBeHadKeepTheOldOnes) {
  WriteTokens(OldTokens());
  server_.Answer(kTokenPath, 200, R"({"access_token":"a","refresh_token":"r"})");
  EXPECT_EQ(Catch(Grant).code, kNoToken);
  ExpectNothingChanged();
  server_.Answer(kTokenPath, 401, "{}");
  EXPECT_EQ(Catch(Grant), (Thrown{5, "Failed to exchange token, code=401, resp={}"}));
  ExpectNothingChanged();
}

std::vector<BadAnswer> BadGrants() {
  const std::string refused = "Failed to grant by authkey";
  const std::string unreadable = "Failed to parse grant by authkey resp";
  const std::string good = R"({"grant_code":"g"})";
  std::vector<BadAnswer> answers = {
      Failing("Status401", 401, R"({"error":"x"})", 14, "Failed to auth on grant by authkey"),
      Failing("Html401", 401, "<html>", 14, "Failed to auth on grant by authkey"),
      Failing("Status403", 403, good, 5, refused),
      Failing("Status500", 500, good, 5, refused),
      Failing("Status201", 201, good, 5, refused),
      Failing("Redirect", 302, good, 5, refused),
      Failing("PercentSigns", 400, "%s%n%d", 5, refused),
      Failing("EmptyObject", 200, "{}", 5, unreadable)};
  for (const NamedText& text : session::JsonThatIsNoObject()) {
    answers.push_back(Failing("NoObject" + text.name, 200, text.text, 5, unreadable));
  }
  for (const NamedText& text : session::JsonThatIsNoText()) {
    answers.push_back(
        Failing("Code" + text.name, 200, R"({"grant_code":)" + text.text + "}", 5, unreadable));
  }
  answers.push_back(Failing("CodeEmpty", 200, R"({"grant_code":""})", 5, unreadable));
  AppendNoJson(answers);
  return answers;
}

class BadGrantTest : public GrantTest, public testing::WithParamInterface<BadAnswer> {};

TEST_P(BadGrantTest, IsReportedAndChangesNothing) {
  WriteTokens(OldTokens());
  server_.Answer(kGrantPath, GetParam().response);
  EXPECT_EQ(Catch(Grant), GetParam().thrown);
  EXPECT_EQ(LogWithLines(), GetParam().log);
  EXPECT_THAT(Paths(), ElementsAre(kGrantPath));
  ExpectNothingChanged();
}

INSTANTIATE_TEST_SUITE_P(All, BadGrantTest, testing::ValuesIn(BadGrants()), NameOfAnswer);

TEST_F(GrantTest, EveryPlatformCallMayFail) {
  hooks().usleep = [](useconds_t) {};
  std::optional<std::uint32_t> code;
  FailEachCall(
      [&] {
        Link();
        WriteTokens(OldTokens());
        code.reset();
      },
      [&] {
        try {
          Grant();
        } catch (const ZomiException& failure) {
          code = failure.code();
        }
      },
      [&] {
        EXPECT_EQ(ReadRecord(), kLinkedRecord);
        if (code) {
          EXPECT_TRUE(IsKnownCode(*code)) << *code;
          EXPECT_EQ(ReadTokens(), OldTokens());
        } else {
          EXPECT_THAT(ReadTokens(), HasSubstr("new-refresh"));
        }
      });
}

// --- the auth-key exchange ------------------------------------------------------------------

class AuthKeyExchangeTest : public AccountPkceServiceTest {
 protected:
  static Json::Value Exchange(const std::string& token = "the token") {
    return AccountPkceServiceImpl().ExchangeAuthKey(token);
  }
};

TEST_F(AuthKeyExchangeTest, SendsTheTokenAloneAndNoBody) {
  (void)Exchange();
  const Request request = server_.OnlyRequest(kExchangePath);
  std::vector<std::string> names;
  for (const devcloud::Header& header : request.headers) names.push_back(header.name);
  EXPECT_THAT(names, ElementsAre("Host", "User-Agent", "Accept", "Accept-Encoding", "Authorization",
                                 "Content-Length", "Content-Type"));
  EXPECT_EQ(request.CountHeaders("X-Client-ID"), 0U);
  EXPECT_EQ(request.HeaderOr("Authorization"), "Bearer the token");
  EXPECT_EQ(request.HeaderOr("User-Agent"), session::kAgent);
  EXPECT_EQ(request.body, "");
  EXPECT_THAT(server_.Targets(),
              ElementsAre(std::string("POST https://account.veltrix.example") + kExchangePath));
}

TEST_F(AuthKeyExchangeTest, GivesTheWholeAnswer) {
  server_.Answer(kExchangePath, 200, R"({"user_id":"u","auth_key":"k","more":[1,{"a":null}]})");
  EXPECT_EQ(json::toString(Exchange()), R"({"auth_key":"k","more":[1,{"a":null}],"user_id":"u"})");
}

TEST_F(AuthKeyExchangeTest, MembersOfAnyTypeAreThere) {
  server_.Answer(kExchangePath, 200, R"({"user_id":4711,"auth_key":{}})");
  EXPECT_EQ(Exchange()["user_id"], 4711);
}

TEST_F(AuthKeyExchangeTest, WritesNothing) {
  Link();
  WriteTokens(OldTokens());
  (void)Exchange();
  EXPECT_EQ(ReadRecord(), kLinkedRecord);
  EXPECT_EQ(ReadTokens(), OldTokens());
  EXPECT_EQ(platform().call_count("KLIBCFileSetKeyValue"), 0U);
}

TEST_F(AuthKeyExchangeTest, ATokenWithALineBreakIsNotSent) {
  const Thrown thrown = Catch([] { (void)Exchange("token\r\nX-Evil: 1"); });
  EXPECT_EQ(thrown.code, kBadResponse);
  EXPECT_THAT(thrown.message, StartsWith("Failed to exchange authkey, reqcode="));
  EXPECT_THAT(server_.requests(), IsEmpty());
}

TEST_F(AuthKeyExchangeTest, WithoutAUserAgentNothingIsSent) {
  AccountPkceServiceImpl service;
  UserAgentFails() = true;
  EXPECT_EQ(Catch([&] { (void)service.ExchangeAuthKey("t"); }).code, kSystemError);
  EXPECT_THAT(server_.requests(), IsEmpty());
}

TEST_F(AuthKeyExchangeTest, WithoutTheLoginConfigurationNothingIsSent) {
  AccountPkceServiceImpl service;
  platform().FailNext("KLIBGetSerialNumber");
  EXPECT_EQ(Catch([&] { (void)service.ExchangeAuthKey("t"); }).code, kNoSerialNumber);
  platform().FailNext("KIVOHsinfoCloudServiceGetMacAddress");
  EXPECT_EQ(Catch([&] { (void)service.ExchangeAuthKey("t"); }).code, kNoMacAddress);
  test_files::Write(session::kLoginConfigPath, "broken");
  EXPECT_EQ(Catch([&] { (void)service.ExchangeAuthKey("t"); }).code, kWrongJsonFormat);
  EXPECT_THAT(server_.requests(), IsEmpty());
}

BadAnswer IncompleteIdentity(const std::string& name, const std::string& text) {
  BadAnswer answer = Failing(name, 200, text, 22, "Failed to parse exchange authkey resp");
  answer.log = {
      "account_pkce_service:107 Failed to ExchangeAuthKey by [a whole long token], code=200, "
      "resp=" +
      text};
  return answer;
}

std::vector<BadAnswer> BadIdentities() {
  const std::string refused = "Failed to exchange authkey";
  std::vector<BadAnswer> answers = {
      Failing("Status401", 401, R"({"error":"invalid_token"})", 5, refused),
      Failing("Status403", 403, kIdentityAnswer, 5, refused),
      Failing("Status500", 500, "", 5, refused),
      Failing("Status201", 201, kIdentityAnswer, 5, refused),
      Failing("Redirect", 308, kIdentityAnswer, 5, refused),
      IncompleteIdentity("EmptyObject", "{}"),
      IncompleteIdentity("NoUserId", R"({"auth_key":"k"})"),
      IncompleteIdentity("NoAuthKey", R"({"user_id":"u"})"),
      IncompleteIdentity("UserIdNull", R"({"user_id":null,"auth_key":"k"})"),
      IncompleteIdentity("UserIdEmpty", R"({"user_id":"","auth_key":"k"})"),
      IncompleteIdentity("AuthKeyNull", R"({"user_id":"u","auth_key":null})"),
      IncompleteIdentity("AuthKeyEmpty", R"({"user_id":"u","auth_key":""})")};
  for (const NamedText& text : session::JsonThatIsNoObject()) {
    answers.push_back(IncompleteIdentity("NoObject" + text.name, text.text));
  }
  AppendNoJson(answers);
  return answers;
}

class BadIdentityTest : public AuthKeyExchangeTest,
                        public testing::WithParamInterface<BadAnswer> {};

TEST_P(BadIdentityTest, IsReported) {
  server_.Answer(kExchangePath, GetParam().response);
  EXPECT_EQ(Catch([] { (void)Exchange("a whole long token"); }), GetParam().thrown);
  EXPECT_EQ(LogWithLines(), GetParam().log);
}

INSTANTIATE_TEST_SUITE_P(All, BadIdentityTest, testing::ValuesIn(BadIdentities()), NameOfAnswer);

// --- login ----------------------------------------------------------------------------------

class LoginTest : public AccountPkceServiceTest {
 protected:
  static void Login() {
    AccountPkceServiceImpl().Login("the code", "the verifier",
                                   "https://account.veltrix.example/login/back");
  }
};

TEST_F(LoginTest, StoresTheAccount) {
  Login();
  const std::string record = ReadRecord();
  EXPECT_EQ(RecordValue(record, "account_host"), session::kAccount);
  EXPECT_EQ(RecordValue(record, "identity_host"), session::kIdentity);
  EXPECT_EQ(RecordValue(record, "zomiIDSerial"), "4711");
  EXPECT_EQ(RecordValue(record, "hs_auth_key"), "key of 4711");
  EXPECT_EQ(RecordValue(record, "zomiID"), "anna@example.org");
  EXPECT_EQ(RecordValue(record, "last_query_time"), "1700000000");
  EXPECT_THAT(Log(),
              ElementsAre("account_pkce_service Logged in Veltrix Account as [anna@example.org]"));
}

TEST_F(LoginTest, AsksForTokensIdentityAndProfileInThisOrder) {
  Login();
  EXPECT_THAT(Paths(), ElementsAre(kTokenPath, kExchangePath, kQueryPath));
  EXPECT_EQ(server_.OnlyRequest(kTokenPath).body,
            "grant_type=authorization_code&client_id=login-client"
            "&redirect_uri=https%3A%2F%2Faccount.veltrix.example%2Flogin%2Fback"
            "&code=the%20code&code_verifier=the%20verifier");
  EXPECT_EQ(server_.OnlyRequest(kExchangePath).HeaderOr("Authorization"), "Bearer new-access");
  EXPECT_THAT(server_.OnlyRequest(kQueryPath).body,
              testing::EndsWith("&id=4711&auth_key=key%20of%204711&serial_no=FAKE123456789"));
}

TEST_F(LoginTest, TheIdentityIsWrittenBeforeTheProfile) {
  Login();
  std::vector<std::string> keys;
  for (const fake_hos::Call& call : platform().calls("KLIBCFileSetKeyValue")) {
    keys.push_back(call.args[1]);
  }
  ASSERT_GE(keys.size(), 5U);
  keys.resize(5);
  EXPECT_THAT(
      keys, ElementsAre("account_host", "identity_host", "zomiIDSerial", "hs_auth_key", "zomiID"));
}

TEST_F(LoginTest, TellsThePlugInsBeforeAndAfter) {
  std::vector<std::string> seen;
  platform().OnCall("KLIBPluginAction", [&](const fake_hos::Call& call) {
    seen.push_back(call.args[0] + ": " + std::to_string(server_.requests().size()) + " requests, " +
                   RecordValue(ReadRecord(), "zomiID"));
  });
  Login();
  EXPECT_THAT(seen, ElementsAre("4: 0 requests, (none)", "5: 3 requests, anna@example.org"));
  EXPECT_THAT(platform().plugin_runs, ElementsAre(kLogin4, kLogin5));
}

TEST_F(LoginTest, PlugInsThatCannotBeToldDoNotStopIt) {
  platform().FailAlways("KLIBPluginAction");
  Login();
  EXPECT_EQ(RecordValue(ReadRecord(), "zomiID"), "anna@example.org");
  EXPECT_THAT(platform().plugin_runs, ElementsAre(kLogin4, kLogin5));
}

TEST_F(LoginTest, KeepsTheHostsInUse) {
  WriteRecord("account_host=\"https://localhost\"\n");
  Login();
  EXPECT_EQ(RecordValue(ReadRecord(), "account_host"), "https://localhost");
  EXPECT_EQ(RecordValue(ReadRecord(), "identity_host"), session::kIdentity);
}

TEST_F(LoginTest, AnotherAccountIsAskedForItsProfileAtOnce) {
  WriteRecord("zomiID=\"old@example.org\"\nzomiIDSerial=\"1\"\nlast_query_time=\"1699999999\"\n");
  Login();
  EXPECT_EQ(RecordValue(ReadRecord(), "zomiID"), "anna@example.org");
  EXPECT_THAT(Log(), ElementsAre(HasSubstr("as [anna@example.org]")));
}

TEST_F(LoginTest, ANumberAsTheUserIdIsItsText) {
  server_.Answer(kExchangePath, 200, R"({"user_id":4711,"auth_key":true})");
  Login();
  EXPECT_EQ(RecordValue(ReadRecord(), "zomiIDSerial"), "4711");
  EXPECT_EQ(RecordValue(ReadRecord(), "hs_auth_key"), "true");
}

TEST_F(LoginTest, TokensThatCannotBeHadEndItBeforeAnythingIsWritten) {
  WriteRecord(kLinkedRecord);
  WriteTokens(OldTokens());
  server_.Answer(kTokenPath, 400, "{}");
  EXPECT_EQ(Catch(Login), (Thrown{5, "Failed to exchange token, code=400, resp={}"}));
  EXPECT_THAT(Paths(), ElementsAre(kTokenPath));
  EXPECT_EQ(ReadRecord(), kLinkedRecord);
  EXPECT_EQ(ReadTokens(), OldTokens());
  EXPECT_THAT(platform().plugin_runs, ElementsAre(kLogin4));
}

TEST_F(LoginTest, TokensThatAreRefusedAtOnceAreRescuedByAGrant) {
  Link();
  server_.AnswerInTurn(kTokenPath, {Response{.body = TokenAnswer("dead", R"("expires_in":-1)")},
                                    Response{.status = 400, .body = "{}"},
                                    Response{.body = TokenAnswer("granted")}});
  Login();
  EXPECT_THAT(Paths(), ElementsAre(kTokenPath, kTokenPath, kGrantPath, kTokenPath, kExchangePath));
  EXPECT_EQ(server_.OnlyRequest(kExchangePath).HeaderOr("Authorization"), "Bearer granted-access");
}

// A failure after the tokens came.
struct LateFailure {
  std::string name;
  const char* path;
  Response response;
  std::uint32_t code;
};

void PrintTo(const LateFailure& failure, std::ostream* stream) { *stream << failure.name; }

std::vector<LateFailure> LateFailures() {
  const auto profile = [](const std::string& from, const std::string& to) {
    std::string text = session::ProfileAnswer();
    return Response{.body = text.replace(text.find(from), from.size(), to)};
  };
  return {
      {"ExchangeRefused", kExchangePath, {.status = 401, .body = "{}"}, 5},
      {"ExchangeNoJson", kExchangePath, {.body = "<html>"}, 2},
      {"ExchangeIncomplete", kExchangePath, {.body = R"({"user_id":"u"})"}, 22},
      {"ExchangeRedirects", kExchangePath, {.status = 302, .body = kIdentityAnswer}, 5},
      {"ExchangeDropped", kExchangePath, {.fault = {.delivery = Delivery::kDrop}}, 5},
      {"UserIdNull", kExchangePath, {.body = R"({"user_id":null,"auth_key":"k"})"}, 22},
      {"UserIdList", kExchangePath, {.body = R"({"user_id":["u"],"auth_key":"k"})"}, 5},
      {"AuthKeyObject", kExchangePath, {.body = R"({"user_id":"u","auth_key":{}})"}, 5},
      {"UserIdWithLineBreak",
       kExchangePath,
       {.body = R"({"user_id":"u\"\nhs_auth_key=\"evil","auth_key":"k"})"},
       19},
      {"AuthKeyWithLineBreak",
       kExchangePath,
       {.body = R"({"user_id":"u","auth_key":"k\nevil=\"1"})"},
       19},
      {"UserIdWithNul", kExchangePath, {.body = R"({"user_id":"u\u0000","auth_key":"k"})"}, 19},
      {"QueryRefused", kQueryPath, {.status = 500, .body = "{}"}, 4},
      {"QueryDropped", kQueryPath, {.fault = {.delivery = Delivery::kDrop}}, 4},
      {"QueryNoJson", kQueryPath, {.body = "<html>"}, 2},
      {"QueryIncomplete", kQueryPath, {.body = R"({"code":"good"})"}, 5},
      {"QueryBadAuth", kQueryPath, {.body = R"({"code":"badauth"})"}, 3},
      {"QueryUnverified", kQueryPath, profile("\"good\"", "\"account_unverified\""), 18},
      {"NameWithLineBreak", kQueryPath, profile("Anna", R"(A\nhs_auth_key=\"evil\")"), 19},
      {"EmailWithLineBreak", kQueryPath, profile("anna@example.org", R"(a\n@b)"), 19},
  };
}

class LateFailureTest : public LoginTest, public testing::WithParamInterface<LateFailure> {
 protected:
  void FailLogin() {
    server_.Answer(GetParam().path, GetParam().response);
    EXPECT_EQ(Catch(Login).code, GetParam().code);
    EXPECT_THAT(ReadTokens(), HasSubstr("new-refresh"));
    EXPECT_THAT(platform().plugin_runs, Not(Contains(kLogin5)));
    EXPECT_THAT(Log(), Not(Contains(HasSubstr("Logged in"))));
  }
};

TEST_P(LateFailureTest, LeavesTheRecordAsItWas) {
  // Long ago queried, so that the server is asked for the profile.
  const std::string record = "zomiID=\"old\"\nzomiIDSerial=\"1\"\nhs_auth_key=\"2\"\n# kept\nx=1";
  WriteRecord(record);
  FailLogin();
  EXPECT_EQ(ReadRecord(), record);
}

TEST_P(LateFailureTest, MakesNoRecord) {
  FailLogin();
  EXPECT_FALSE(HasRecord());
}

INSTANTIATE_TEST_SUITE_P(All, LateFailureTest, testing::ValuesIn(LateFailures()),
                         [](const auto& test) { return test.param.name; });

TEST_F(LoginTest, ARecordThatCannotBeWrittenAtAnyKeyStaysAsItWas) {
  constexpr int kTooMany = 100;
  int n = 1;
  for (; n < kTooMany; ++n) {
    WriteRecord("zomiIDSerial=\"1\"\n");
    platform().FailCall("KLIBCFileSetKeyValue", n);
    std::optional<std::uint32_t> code;
    try {
      Login();
    } catch (const ZomiException& failure) {
      code = failure.code();
    }
    platform().StopFailing();
    if (!code) break;
    EXPECT_EQ(*code, kAccountNotWritten) << "write " << n;
    EXPECT_EQ(ReadRecord(), "zomiIDSerial=\"1\"\n") << "write " << n;
  }
  EXPECT_GE(n, 17) << "four keys and the whole profile are written";
  EXPECT_LT(n, kTooMany);
}

TEST_F(LoginTest, EveryPlatformCallMayFail) {
  hooks().usleep = [](useconds_t) {};
  const std::string record = "zomiIDSerial=\"1\"\nhs_auth_key=\"2\"\n";
  constexpr std::uint32_t kNoFailure = UINT32_MAX;
  std::uint32_t code = kNoFailure;
  FailEachCall(
      [&] {
        WriteRecord(record);
        WriteTokens(OldTokens());
        code = kNoFailure;
      },
      [&] {
        try {
          Login();
        } catch (const ZomiException& failure) {
          code = failure.code();
        }
      },
      [&] {
        if (code != kNoFailure) {
          EXPECT_TRUE(IsKnownCode(code)) << code;
          EXPECT_EQ(ReadRecord(), record);
        } else {
          EXPECT_EQ(RecordValue(ReadRecord(), "hs_auth_key"), "key of 4711");
          EXPECT_EQ(RecordValue(ReadRecord(), "zomiID"), "anna@example.org");
        }
        Json::Value tokens;
        EXPECT_TRUE(json::fromFile(session::kLoginTokens, tokens));
      });
}

// --- logout ---------------------------------------------------------------------------------

class LogoutTest : public AccountPkceServiceTest {
 protected:
  LogoutTest() {
    LetRmWork();
    Link();
    WriteTokens(OldTokens());
  }

  static void Logout(AccessToken token = AccessToken::kInclude) {
    AccountPkceServiceImpl().Logout(token);
  }

  static void ExpectCleared() {
    EXPECT_FALSE(HasRecord());
    EXPECT_FALSE(HasTokens());
    EXPECT_THAT(platform().plugin_runs, ElementsAre(kLogout4));
    EXPECT_EQ(platform().call_count("ConfigManager::Remove"), 1U);
    EXPECT_EQ(platform().events.size(), 1U);
  }

  static void ExpectKept() {
    EXPECT_EQ(ReadRecord(), kLinkedRecord);
    EXPECT_EQ(ReadTokens(), OldTokens());
    EXPECT_THAT(platform().plugin_runs, IsEmpty());
    EXPECT_EQ(platform().call_count("ConfigManager::Remove"), 0U);
    EXPECT_THAT(platform().events, IsEmpty());
    EXPECT_THAT(platform().exec_runs, IsEmpty());
  }
};

TEST_F(LogoutTest, SendsTheFormWithTheAccessToken) {
  Logout();
  const Request request = server_.OnlyRequest(kLogoutPath);
  EXPECT_EQ(request.body,
            "serial_no=FAKE123456789&id=4711&auth_key=key%20of%204711&access_token=old-access");
  EXPECT_EQ(request.HeaderOr("X-Client-ID"), "login-client");
  EXPECT_EQ(request.HeaderOr("User-Agent"), session::kAgent);
  EXPECT_EQ(request.HeaderOr("Host"), "account.veltrix.example");
  ExpectCleared();
}

TEST_F(LogoutTest, LeavesTheAccessTokenOutWhenToldTo) {
  Logout(AccessToken::kOmit);
  EXPECT_EQ(server_.OnlyRequest(kLogoutPath).body,
            "serial_no=FAKE123456789&id=4711&auth_key=key%20of%204711");
  ExpectCleared();
}

TEST_F(LogoutTest, LeavesAnEmptyAccessTokenOut) {
  WriteTokens(R"({"access_token":"","created_at":1700000000,"expires_in":1})");
  Logout();
  EXPECT_EQ(server_.OnlyRequest(kLogoutPath).body,
            "serial_no=FAKE123456789&id=4711&auth_key=key%20of%204711");
}

TEST_F(LogoutTest, RenewsTheAccessTokenItSends) {
  WriteTokens(ExpiredTokens());
  Logout();
  EXPECT_THAT(Paths(), ElementsAre(kTokenPath, kLogoutPath));
  EXPECT_THAT(server_.OnlyRequest(kLogoutPath).body, HasSubstr("&access_token=new-access"));
}

TEST_F(LogoutTest, WithoutALinkedAccountNothingIsSentAndLocalFilesGo) {
  WriteRecord("zomiIDSerial=\"4711\"\nhs_auth_key=\"k\"\n");
  Logout();
  EXPECT_THAT(server_.requests(), IsEmpty());
  ExpectCleared();
  EXPECT_THAT(Log(), ElementsAre("account_pkce_service Logged out Veltrix Account"));
}

TEST_F(LogoutTest, WithoutARecordNothingIsSentAndLocalFilesGo) {
  RemoveRecord();
  Logout();
  EXPECT_THAT(server_.requests(), IsEmpty());
  ExpectCleared();
}

TEST_F(LogoutTest, WithoutASerialNumberTheDeviceStaysLinked) {
  AccountPkceServiceImpl service;
  platform().FailNext("KLIBGetSerialNumber");
  EXPECT_EQ(Catch([&] { service.Logout(AccessToken::kInclude); }).code, kNoSerialNumber);
  EXPECT_THAT(server_.requests(), IsEmpty());
  ExpectKept();
}

TEST_F(LogoutTest, WithoutAUserAgentTheDeviceStaysLinked) {
  UserAgentFails() = true;
  EXPECT_EQ(Catch([] { Logout(); }).code, kSystemError);
  EXPECT_THAT(server_.requests(), IsEmpty());
  ExpectKept();
}

TEST_F(LogoutTest, WithoutTokensAndAuthKeyTheDeviceStaysLinked) {
  WriteRecord("zomiID=\"anna\"\n");
  RemoveTokens();
  EXPECT_EQ(Catch([] { Logout(); }), (Thrown{22, "Failed to find an existed token file"}));
  EXPECT_THAT(server_.requests(), IsEmpty());
  EXPECT_EQ(ReadRecord(), "zomiID=\"anna\"\n");
}

class GoodLogoutTest : public LogoutTest, public testing::WithParamInterface<NamedText> {};

TEST_P(GoodLogoutTest, ClearsTheLocalAccount) {
  server_.Answer(kLogoutPath, 200, GetParam().text);
  Logout();
  ExpectCleared();
  EXPECT_THAT(Log(),
              ElementsAre("account_pkce_service Logged out Veltrix Account: anna@example.org"));
}

INSTANTIATE_TEST_SUITE_P(All, GoodLogoutTest,
                         testing::ValuesIn(std::vector<NamedText>{
                             {"Good", R"({"code":"good"})"},
                             {"UserId", R"({"code":"account_userid"})"},
                             {"MoreThanGood", R"({"code":"goodness","other":1})"},
                             {"NoCode", "{}"},
                         }),
                         session::NameOf);

std::vector<BadAnswer> BadLogouts() {
  const std::string refused = "Failed to logout";
  std::vector<BadAnswer> answers = {Failing("Status401", 401, R"({"code":"good"})", 5, refused),
                                    Failing("Status500", 500, R"({"code":"good"})", 5, refused),
                                    Failing("Status204", 201, R"({"code":"good"})", 5, refused),
                                    Failing("Redirect", 302, R"({"code":"good"})", 5, refused)};
  for (const NamedText& text : session::JsonThatIsNoObject()) {
    answers.push_back(
        Failing("NoObject" + text.name, 200, text.text, 2, "Failed to parse logout resp"));
  }
  const std::vector<std::pair<std::string, std::uint32_t>> words = {
      {"badparam", 1},
      {"badauth", 14},
      {"badsys", 6},
      {"badnetwork", 15},
      {"account_inused", 16},
      {"serial_exceed_max_account_register", 17},
      {"account_unverified", 18},
      {"account_not_found", 25},
      {"apikey_not_found", 26},
      {"apikey_expired", 27},
      {"unheard_of", 24},
      {"Good", 24},
      {"", 24},
      {"0", 24}};
  for (const auto& [word, code] : words) {
    answers.push_back({"Word_" + word,
                       {.body = R"({"code":")" + word + "\"}"},
                       {code, "Failed to logout with success code"}});
  }
  const std::vector<NamedText> odd_codes = {
      {"Number", "0"}, {"Null", "null"}, {"Object", R"({"good":"good"})"}, {"List", R"(["good"])"}};
  for (const auto& [name, code] : odd_codes) {
    answers.push_back({name + "AsCode",
                       {.body = R"({"code":)" + code + "}"},
                       {24, "Failed to logout with success code"}});
  }
  AppendNoJson(answers);
  return answers;
}

class BadLogoutTest : public LogoutTest, public testing::WithParamInterface<BadAnswer> {};

TEST_P(BadLogoutTest, IsReportedAndTheDeviceStaysLinked) {
  server_.Answer(kLogoutPath, GetParam().response);
  EXPECT_EQ(Catch([] { Logout(); }), GetParam().thrown);
  EXPECT_EQ(LogWithLines(), GetParam().log);
  ExpectKept();
}

INSTANTIATE_TEST_SUITE_P(All, BadLogoutTest, testing::ValuesIn(BadLogouts()), NameOfAnswer);

TEST_F(LogoutTest, EveryPlatformCallMayFail) {
  hooks().usleep = [](useconds_t) {};
  std::optional<std::uint32_t> code;
  FailEachCall(
      [&] {
        LetRmWork();
        Link();
        WriteTokens(OldTokens());
        code.reset();
      },
      [&] {
        try {
          Logout();
        } catch (const ZomiException& failure) {
          code = failure.code();
        }
      },
      [&] {
        if (code) {
          EXPECT_TRUE(IsKnownCode(*code)) << *code;
          EXPECT_EQ(ReadRecord(), kLinkedRecord);
        }
        EXPECT_TRUE(!HasRecord() || ReadRecord() == kLinkedRecord);
        Json::Value tokens;
        EXPECT_TRUE(!HasTokens() || json::fromFile(session::kLoginTokens, tokens));
      });
}

// --- clearing -------------------------------------------------------------------------------

TEST_F(LogoutTest, ClearsRecordJobAndTokensInThisOrder) {
  AccountPkceServiceImpl service;
  platform().ClearCalls();
  service.ClearLocalAccount();
  EXPECT_THAT(CallNames(),
              ElementsAre("KLIBCFileGetKeyValue", "KLIBCFileGetKeyValue", "KLIBPluginSDKInit",
                          "KLIBPluginAction", "KLIBPluginExit", "ConfigManager::ConfigManager",
                          "ConfigManager::Remove", "KIVOLogSet1", "KLIBCExecl"));
  EXPECT_THAT(platform().calls("ConfigManager::ConfigManager"),
              ElementsAre(fake_hos::Call{"ConfigManager::ConfigManager", {"zomi", "false"}}));
  EXPECT_THAT(platform().events,
              ElementsAre(fake_hos::LogEvent{2, 1, 0x13A00002, {"", "", "", ""}}));
  EXPECT_THAT(platform().exec_runs,
              ElementsAre(fake_hos::ExecRun{
                  "/bin/sh",
                  187,
                  {"-c", "/bin/rm -f /usr/kivo/etc/veltrix-account/private/*_token.json"}}));
  ExpectCleared();
}

TEST_F(LogoutTest, PlugInsThatRefuseKeepTheRecordAndTheRestGoes) {
  platform().FailNext("KLIBPluginAction");
  AccountPkceServiceImpl().ClearLocalAccount();
  EXPECT_EQ(ReadRecord(), kLinkedRecord);
  EXPECT_FALSE(HasTokens());
  EXPECT_EQ(platform().call_count("ConfigManager::Remove"), 1U);
  EXPECT_EQ(platform().events.size(), 1U);
  EXPECT_THAT(Log(),
              ElementsAre("account_pkce_service Logged out Veltrix Account: anna@example.org",
                          "zomi_config_remove KLIBPluginAction failed, action=4"));
}

TEST_F(LogoutTest, AJobAndAnEventThatFailAreIgnored) {
  platform().FailNext("ConfigManager::Remove");
  platform().FailNext("KIVOLogSet1");
  AccountPkceServiceImpl().ClearLocalAccount();
  EXPECT_FALSE(HasRecord());
  EXPECT_FALSE(HasTokens());
  EXPECT_THAT(Log(),
              ElementsAre("account_pkce_service Logged out Veltrix Account: anna@example.org"));
}

TEST_F(LogoutTest, TokenFilesThatCannotBeRemovedAreLogged) {
  platform().exec = nullptr;
  platform().exec_status = -1;
  AccountPkceServiceImpl().ClearLocalAccount();
  EXPECT_THAT(Log(),
              ElementsAre("account_pkce_service Logged out Veltrix Account: anna@example.org",
                          "account_pkce_service Failed to clear token files"));
}

TEST_F(LogoutTest, AnRmThatFailsIsNoFailure) {
  platform().exec = nullptr;
  platform().exec_status = 1;
  AccountPkceServiceImpl().ClearLocalAccount();
  EXPECT_THAT(Log(), Not(Contains(HasSubstr("Failed"))));
}

TEST_F(LogoutTest, TheRmCommandRemovesEveryTokenFileAndNothingElse) {
  test_files::Write(std::string(session::kPrivateFolder) + "/other_token.json", "{}");
  platform().exec = [](const fake_hos::ExecRun& run) {
    return std::system(run.args.at(1).c_str());  // NOLINT(cert-env33-c): the flow's own command
  };
  platform().FailNext("KLIBPluginAction");
  AccountPkceServiceImpl().ClearLocalAccount();
  EXPECT_FALSE(HasTokens());
  EXPECT_EQ(test_files::Read(std::string(session::kPrivateFolder) + "/other_token.json"), "");
  EXPECT_EQ(ReadRecord(), kLinkedRecord);
}

// --- rescue ---------------------------------------------------------------------------------

struct TokenRead {
  const char* name;
  std::string (AccountPkceServiceImpl::*read)();
};

class RescueTest : public AccountPkceServiceTest, public testing::WithParamInterface<TokenRead> {
 protected:
  RescueTest() {
    LetRmWork();
    Link();
  }

  static std::string Read() { return (AccountPkceServiceImpl().*GetParam().read)(); }

  // "new-access" or "new-id".
  static std::string Token(const std::string& name) { return name + "-" + GetParam().name; }

  // The stored tokens have expired and the server refuses to renew them.
  void RefuseRenewal(Response after) {
    WriteTokens(ExpiredTokens());
    server_.AnswerInTurn(
        kTokenPath, {Response{.status = 400, .body = R"({"error":"revoked"})"}, std::move(after)});
  }

  static constexpr char kRefused[] =
      "pkce_client Failed to renew token, refresh_token is expired or revoked, code=400, "
      "resp={\"error\":\"revoked\"}";
  static constexpr char kRescue[] = "account_pkce_service Rescue hos renew pkce token by authkey";
  static constexpr char kForced[] =
      "account_pkce_service Failed to rescue by authkey, force logout";
};

TEST_P(RescueTest, AGoodTokenIsJustRead) {
  WriteTokens(OldTokens());
  EXPECT_EQ(Read(), Token("old"));
  EXPECT_THAT(server_.requests(), IsEmpty());
}

TEST_P(RescueTest, WithoutTokensTheyAreGrantedFirst) {
  EXPECT_EQ(Read(), Token("new"));
  EXPECT_THAT(Paths(), ElementsAre(kGrantPath, kTokenPath));
  EXPECT_THAT(Log(), IsEmpty());
}

TEST_P(RescueTest, AFirstGrantThatFailsIsNoRescue) {
  server_.Answer(kGrantPath, 401, "{}");
  EXPECT_EQ(Catch([] { (void)Read(); }),
            (Thrown{14, "Failed to auth on grant by authkey, code=401, resp={}"}));
  EXPECT_THAT(Paths(), ElementsAre(kGrantPath));
  EXPECT_EQ(ReadRecord(), kLinkedRecord);
  EXPECT_THAT(Log(), IsEmpty());
}

TEST_P(RescueTest, WithoutTokensAndAuthKeyNothingIsAsked) {
  WriteRecord("zomiID=\"anna\"\n");
  EXPECT_EQ(Catch([] { (void)Read(); }), (Thrown{22, "Failed to find an existed token file"}));
  EXPECT_THAT(server_.requests(), IsEmpty());
}

TEST_P(RescueTest, ARecordThatCannotBeReadCountsAsWithoutAuthKey) {
  if (!lab::HasOtherUsers()) GTEST_SKIP() << "there is no other user to become";
  const std::string said = RunInChild([] {
    BecomeIds({1026, 1026, 1026, 100, 100, 100});
    return std::to_string(Catch([] { (void)Read(); }).code);
  });
  EXPECT_EQ(said, "22");
  EXPECT_THAT(server_.requests(), IsEmpty());
}

TEST_P(RescueTest, AnExpiredTokenIsRenewedWithoutRescue) {
  WriteTokens(ExpiredTokens());
  EXPECT_EQ(Read(), Token("new"));
  EXPECT_THAT(Paths(), ElementsAre(kTokenPath));
}

TEST_P(RescueTest, OtherFailuresPass) {
  WriteTokens(ExpiredTokens());
  server_.Answer(kTokenPath, 400, "<html>");
  EXPECT_EQ(Catch([] { (void)Read(); }).code, kWrongJsonFormat);
  server_.Answer(kTokenPath, 200, "[]");
  EXPECT_EQ(Catch([] { (void)Read(); }).code, kBadResponse);
  server_.Answer(kTokenPath, 200, "{}");
  EXPECT_EQ(Catch([] { (void)Read(); }).code, kNoToken);
  EXPECT_THAT(Paths(), ElementsAre(kTokenPath, kTokenPath, kTokenPath));
  EXPECT_EQ(ReadTokens(), ExpiredTokens());
  EXPECT_EQ(ReadRecord(), kLinkedRecord);
}

TEST_P(RescueTest, ARefusedTokenIsRescuedByOneGrant) {
  RefuseRenewal({.body = TokenAnswer("rescued")});
  EXPECT_EQ(Read(), Token("rescued"));
  EXPECT_THAT(Paths(), ElementsAre(kTokenPath, kGrantPath, kTokenPath));
  EXPECT_THAT(Log(), ElementsAre(kRefused, kRescue));
  EXPECT_EQ(ReadRecord(), kLinkedRecord);
}

TEST_P(RescueTest, ASecondRefusalPasses) {
  WriteTokens(ExpiredTokens());
  server_.AnswerInTurn(kTokenPath, {Response{.status = 400, .body = R"({"error":"revoked"})"},
                                    Response{.body = TokenAnswer("dead", R"("expires_in":-1)")},
                                    Response{.status = 400, .body = R"({"error":"again"})"}});
  EXPECT_EQ(Catch([] { (void)Read(); }),
            (Thrown{14,
                    "Failed to renew token, refresh_token is expired or revoked, code=400, "
                    "resp={\"error\":\"again\"}"}));
  EXPECT_EQ(server_.requests(kGrantPath).size(), 1U);
  EXPECT_EQ(server_.requests(kLogoutPath).size(), 0U);
  EXPECT_EQ(ReadRecord(), kLinkedRecord);
}

TEST_P(RescueTest, AFailedRescueForcesALogoutWithoutTheAccessToken) {
  RefuseRenewal({.status = 400, .body = "{}"});
  server_.Answer(kGrantPath, 401, "{}");
  EXPECT_EQ(Catch([] { (void)Read(); }), (Thrown{22, "Failed to find an existed token file"}));
  EXPECT_THAT(Paths(), ElementsAre(kTokenPath, kGrantPath, kLogoutPath));
  EXPECT_EQ(server_.OnlyRequest(kLogoutPath).body,
            "serial_no=FAKE123456789&id=4711&auth_key=key%20of%204711");
  EXPECT_FALSE(HasRecord());
  EXPECT_FALSE(HasTokens());
  EXPECT_THAT(platform().plugin_runs, ElementsAre(kLogout4));
  EXPECT_THAT(Log(),
              ElementsAre(kRefused, kRescue, kForced,
                          "account_pkce_service Logged out Veltrix Account: anna@example.org"));
}

TEST_P(RescueTest, TheRescuesExchangeMayFailToo) {
  RefuseRenewal({.status = 500, .body = ""});
  EXPECT_EQ(Catch([] { (void)Read(); }).code, kNoToken);
  EXPECT_THAT(Paths(), ElementsAre(kTokenPath, kGrantPath, kTokenPath, kLogoutPath));
  EXPECT_FALSE(HasRecord());
}

TEST_P(RescueTest, AfterAForcedLogoutThatLeftTheTokensTheRefusalPasses) {
  RefuseRenewal({.status = 400, .body = R"({"error":"revoked"})"});
  platform().exec = nullptr;
  platform().exec_status = -1;
  server_.Answer(kGrantPath, 500, "");
  EXPECT_EQ(Catch([] { (void)Read(); }).code, kAuthFailed);
  EXPECT_FALSE(HasRecord());
}

TEST_P(RescueTest, AForcedLogoutThatTheServerRefusesKeepsTheDeviceLinked) {
  RefuseRenewal({.status = 400, .body = "{}"});
  server_.Answer(kGrantPath, 401, "{}");
  server_.Answer(kLogoutPath, 200, R"({"code":"badsys"})");
  EXPECT_EQ(Catch([] { (void)Read(); }), (Thrown{6, "Failed to logout with success code"}));
  EXPECT_EQ(ReadRecord(), kLinkedRecord);
  EXPECT_EQ(ReadTokens(), ExpiredTokens());
}

INSTANTIATE_TEST_SUITE_P(
    All, RescueTest,
    testing::Values(TokenRead{"access", &AccountPkceServiceImpl::GetAccessTokenWithRescue},
                    TokenRead{"id", &AccountPkceServiceImpl::GetIdTokenWithRescue}),
    [](const auto& test) { return test.param.name; });

}  // namespace
}  // namespace nodelink
