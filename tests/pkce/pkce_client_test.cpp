#include "pkce/pkce_client.h"

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <boost/lexical_cast.hpp>
#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "core/error_code.h"
#include "core/json.h"
#include "tests/support/child.h"
#include "tests/support/session_fixture.h"

namespace nodelink {
namespace {

using devcloud::CertificateKind;
using devcloud::Delivery;
using devcloud::Request;
using devcloud::Response;
using session::Catch;
using session::kNow;
using session::kTokenPath;
using session::NamedText;
using session::Thrown;
using session::TokenAnswer;
using session::TokenFile;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::StartsWith;

constexpr int kHour = 3600;
constexpr char kParseLine[] = "include/internal/json_utils:13 Failed to parse json: ";

class PkceClientTest : public SessionTest {
 protected:
  PkceClientTest() {
    Json::Value config(Json::objectValue);
    config["client_id"] = "login-client";
    config["token_endpoint"] = std::string(session::kIdentity) + kTokenPath;
    client_.SetConfig(config);
    server_.Answer(kTokenPath, 200, TokenAnswer("new"));
  }

  std::string AccessToken() { return client_.GetAccessToken(); }
  std::string IdToken() { return client_.GetIdToken(); }
  void Exchange() { client_.PkceLogin("the code", "the verifier", "https://back/"); }

  // Tokens of which only the refresh token is still good.
  static std::string ExpiredTokens() { return TokenFile("old", kNow - kHour - 1, kHour); }
  static void StoreExpired() { WriteTokens(ExpiredTokens()); }
  static void StoreValid() { WriteTokens(TokenFile("old", kNow, kHour)); }

  PkceClient client_{"login"};
};

std::string With(const std::string& members) {
  return R"({"access_token":"a","id_token":"i","refresh_token":"r",)" + members + "}";
}

// --- the token file -------------------------------------------------------------------------

TEST_F(PkceClientTest, HasNoTokenWithoutAFile) { EXPECT_FALSE(client_.HasToken()); }

TEST_F(PkceClientTest, AnyFileCountsAsAToken) {
  for (const char* content : {"", "null", "broken", "{}"}) {
    WriteTokens(content);
    EXPECT_TRUE(client_.HasToken()) << content;
  }
}

TEST_F(PkceClientTest, LookingForATokenTakesNoLockAndAsksNobody) {
  StoreExpired();
  EXPECT_TRUE(client_.HasToken());
  EXPECT_THAT(CallNames(), IsEmpty());
  EXPECT_THAT(server_.requests(), IsEmpty());
}

TEST_F(PkceClientTest, EachClientHasItsOwnFileAndLocks) {
  const std::string path = std::string(session::kPrivateFolder) + "/other_token.json";
  test_files::Write(path, TokenFile("theirs", kNow));
  StoreValid();
  PkceClient other("other");
  EXPECT_EQ(other.GetAccessToken(), "theirs-access");
  EXPECT_EQ(AccessToken(), "old-access");
  EXPECT_THAT(Locks(), ElementsAre("other_get_token", "login_get_token"));
  std::filesystem::remove(path);
}

TEST_F(PkceClientTest, GivesTheStoredTokens) {
  StoreValid();
  EXPECT_EQ(AccessToken(), "old-access");
  EXPECT_EQ(IdToken(), "old-id");
  EXPECT_THAT(Locks(), ElementsAre("login_get_token", "login_get_token"));
  EXPECT_THAT(server_.requests(), IsEmpty());
  EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(PkceClientTest, ATokenThatIsANumberIsItsText) {
  WriteTokens(R"({"access_token":12345678901,"created_at":1700000000,"expires_in":1})");
  EXPECT_EQ(AccessToken(), "12345678901");
}

TEST_F(PkceClientTest, ATokenIsGivenByteForByte) {
  WriteTokens(With(R"("created_at":1700000000,"expires_in":1,"x":1)"));
  EXPECT_EQ(AccessToken(), "a");
  WriteTokens(R"({"access_token":" a\"\u00e9\n ","created_at":1700000000,"expires_in":1})");
  EXPECT_EQ(AccessToken(), " a\"\xC3\xA9\n ");
}

TEST_F(PkceClientTest, WithoutAFileThereIsNoToken) {
  const Thrown expected{22, "Failed to find an existed token file"};
  EXPECT_EQ(Catch([&] { (void)AccessToken(); }), expected);
  EXPECT_EQ(Catch([&] { (void)IdToken(); }), expected);
  EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(PkceClientTest, AFolderInThePlaceOfTheFileIsWrongJson) {
  std::filesystem::create_directory(session::kLoginTokens);
  EXPECT_EQ(Catch([&] { (void)AccessToken(); }).code, kWrongJsonFormat);
}

class BrokenTokenFileTest : public PkceClientTest, public testing::WithParamInterface<NamedText> {};

TEST_P(BrokenTokenFileTest, IsWrongJsonAndStaysAsItIs) {
  WriteTokens(GetParam().text);
  EXPECT_EQ(Catch([&] { (void)AccessToken(); }), (Thrown{2, "Wrong JSON format"}));
  EXPECT_EQ(Catch([&] { (void)IdToken(); }), (Thrown{2, "Wrong JSON format"}));
  EXPECT_EQ(ReadTokens(), GetParam().text);
  EXPECT_THAT(Log(), IsEmpty());
  EXPECT_THAT(server_.requests(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(All, BrokenTokenFileTest, testing::ValuesIn(session::TextsThatAreNoJson()),
                         session::NameOf);

class TokenFileShapeTest : public PkceClientTest, public testing::WithParamInterface<NamedText> {};

TEST_P(TokenFileShapeTest, WhatIsNoObjectHasNoKeys) {
  WriteTokens(GetParam().text);
  EXPECT_TRUE(client_.HasToken());
  EXPECT_EQ(Catch([&] { (void)AccessToken(); }), (Thrown{22, "Failed to get key: created_at"}));
}

INSTANTIATE_TEST_SUITE_P(All, TokenFileShapeTest, testing::ValuesIn(session::JsonThatIsNoObject()),
                         session::NameOf);

TEST_F(PkceClientTest, AMissingKeyIsNamed) {
  WriteTokens(With(R"("expires_in":1)"));
  EXPECT_EQ(Catch([&] { (void)AccessToken(); }), (Thrown{22, "Failed to get key: created_at"}));
  WriteTokens(With(R"("created_at":1700000000)"));
  EXPECT_EQ(Catch([&] { (void)AccessToken(); }), (Thrown{22, "Failed to get key: expires_in"}));
  WriteTokens(R"({"created_at":1700000000,"expires_in":1})");
  EXPECT_EQ(Catch([&] { (void)AccessToken(); }), (Thrown{22, "Failed to get key: access_token"}));
  EXPECT_EQ(Catch([&] { (void)IdToken(); }), (Thrown{22, "Failed to get key: id_token"}));
}

class TokenTypeTest : public PkceClientTest, public testing::WithParamInterface<NamedText> {};

TEST_P(TokenTypeTest, AValueThatIsNoTextIsMissing) {
  WriteTokens(R"({"created_at":1700000000,"expires_in":1,"access_token":)" + GetParam().text + "}");
  EXPECT_EQ(Catch([&] { (void)AccessToken(); }), (Thrown{22, "Failed to get key: access_token"}));
}

TEST_P(TokenTypeTest, SoIsATimeThatIsNoneUnlessItIsNull) {
  WriteTokens(With(R"("expires_in":1,"created_at":)" + GetParam().text));
  if (GetParam().text == "null") {
    EXPECT_THROW((void)AccessToken(), boost::bad_lexical_cast);
  } else {
    EXPECT_EQ(Catch([&] { (void)AccessToken(); }), (Thrown{22, "Failed to get key: created_at"}));
  }
}

INSTANTIATE_TEST_SUITE_P(All, TokenTypeTest, testing::ValuesIn(session::JsonThatIsNoText()),
                         session::NameOf);

// --- expiry ---------------------------------------------------------------------------------

TEST_F(PkceClientTest, IsValidUpToAndIncludingItsLastSecond) {
  WriteTokens(TokenFile("old", kNow, kHour));
  SetTime(kNow + kHour);
  EXPECT_EQ(AccessToken(), "old-access");
  EXPECT_EQ(IdToken(), "old-id");
  EXPECT_THAT(server_.requests(), IsEmpty());
}

TEST_F(PkceClientTest, IsRenewedFromTheSecondAfterItsLast) {
  WriteTokens(TokenFile("old", kNow, kHour));
  SetTime(kNow + kHour + 1);
  EXPECT_EQ(AccessToken(), "new-access");
  EXPECT_EQ(IdToken(), "new-id");
  EXPECT_EQ(server_.requests().size(), 1U);
}

TEST_F(PkceClientTest, TimesMayBeTexts) {
  WriteTokens(With(R"("created_at":"1700000000","expires_in":"3600")"));
  SetTime(kNow + kHour);
  EXPECT_EQ(AccessToken(), "a");
  SetTime(kNow + kHour + 1);
  EXPECT_EQ(AccessToken(), "new-access");
}

TEST_F(PkceClientTest, ALifetimeBeyondTheEndOfTimeIsValid) {
  WriteTokens(With(R"("created_at":1700000000,"expires_in":2147483647)"));
  EXPECT_EQ(AccessToken(), "a");
  EXPECT_THAT(server_.requests(), IsEmpty());
}

TEST_F(PkceClientTest, ALifetimeBeforeTheBeginningOfTimeIsOver) {
  WriteTokens(With(R"("created_at":-2147483648,"expires_in":-2147483648)"));
  EXPECT_EQ(AccessToken(), "new-access");
}

class BadTimeTest : public PkceClientTest, public testing::WithParamInterface<NamedText> {
 protected:
  void ExpectBadCast(const std::string& content) {
    WriteTokens(content);
    EXPECT_THROW((void)AccessToken(), boost::bad_lexical_cast);
    EXPECT_THROW((void)IdToken(), boost::bad_lexical_cast);
    EXPECT_EQ(ReadTokens(), content);
    EXPECT_EQ(platform().live_objects(), 0) << "the lock is still held";
    EXPECT_THAT(server_.requests(), IsEmpty());
  }
};

TEST_P(BadTimeTest, AsTheLifetimeIsABadCast) {
  ExpectBadCast(With(R"("created_at":1700000000,"expires_in":)" + GetParam().text));
}

TEST_P(BadTimeTest, AsTheTimeOfSavingIsABadCast) {
  ExpectBadCast(With(R"("expires_in":3600,"created_at":)" + GetParam().text));
}

INSTANTIATE_TEST_SUITE_P(All, BadTimeTest,
                         testing::ValuesIn(std::vector<NamedText>{
                             {"Empty", R"("")"},
                             {"Exponent", R"("1e3")"},
                             {"Fraction", R"("3600.5")"},
                             {"NoFraction", R"("3600.0")"},
                             {"NumberWithFraction", "3600.5"},
                             {"NumberWithExponent", "3.6e3"},
                             {"NoDigits", R"("soon")"},
                             {"Minus", R"("-")"},
                             {"Hex", R"("0x10")"},
                             {"LeadingSpace", R"(" 3600")"},
                             {"TrailingSpace", R"("3600 ")"},
                             {"LineBreak", R"("3600\n")"},
                             {"OneTooMany", "2147483648"},
                             {"OneTooFew", "-2147483649"},
                             {"LargestInt64", "9223372036854775807"},
                             {"SmallestInt64", "-9223372036854775808"},
                             {"BeyondInt64", "99999999999999999999999"},
                             {"True", "true"},
                         }),
                         session::NameOf);

// --- locks ----------------------------------------------------------------------------------

TEST_F(PkceClientTest, RenewalLocksReadRenewAndSaveAndReleasesThemInReverse) {
  StoreExpired();
  std::vector<std::string> held;
  platform().OnCall("KLIBCFileUnlockByFile", [&](const fake_hos::Call&) {
    held.push_back(std::to_string(platform().live_objects()));
  });
  EXPECT_EQ(AccessToken(), "new-access");
  EXPECT_THAT(Locks(), ElementsAre("login_get_token", "login_renew_token", "login_save_token"));
  EXPECT_THAT(held, ElementsAre("3", "2", "1"));
}

TEST_F(PkceClientTest, ExchangeLocksExchangeAndSave) {
  Exchange();
  EXPECT_THAT(Locks(), ElementsAre("login_exchange_token", "login_save_token"));
}

TEST_F(PkceClientTest, TheRequestIsMadeWhileTheLocksAreHeld) {
  StoreExpired();
  std::vector<int> held;
  hooks().curl_perform = [&](CURL*) {
    held.push_back(platform().live_objects());
    return std::optional<CURLcode>();
  };
  (void)AccessToken();
  Exchange();
  EXPECT_THAT(held, ElementsAre(2, 1));
}

TEST_F(PkceClientTest, LocksAreWaitedForFor30Seconds) {
  StoreValid();
  HoldLock("login_get_token");
  (void)Catch([&] { (void)AccessToken(); });
  EXPECT_THAT(Locks(), ElementsAre("login_get_token", "login_get_token"))
      << "looks at the clock at 0, 10, 20 and 30 seconds";
}

struct HeldLock {
  const char* name;
  void (*flow)(PkceClient&);
};

class HeldLockTest : public PkceClientTest, public testing::WithParamInterface<HeldLock> {};

TEST_P(HeldLockTest, IsNoTokenAndTheFileStays) {
  StoreExpired();
  HoldLock(GetParam().name);
  EXPECT_EQ(
      Catch([&] { GetParam().flow(client_); }),
      (Thrown{22, "Failed to lock file: /tmp/account_" + std::string(GetParam().name) + ".lock"}));
  EXPECT_EQ(ReadTokens(), ExpiredTokens());
  EXPECT_EQ(platform().live_objects(), 0);
  EXPECT_THAT(Log(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(
    All, HeldLockTest,
    testing::Values(
        HeldLock{"login_get_token", [](PkceClient& client) { (void)client.GetAccessToken(); }},
        HeldLock{"login_get_token", [](PkceClient& client) { (void)client.GetIdToken(); }},
        HeldLock{"login_renew_token", [](PkceClient& client) { (void)client.GetAccessToken(); }},
        HeldLock{"login_save_token", [](PkceClient& client) { (void)client.GetAccessToken(); }},
        HeldLock{"login_exchange_token",
                 [](PkceClient& client) { client.PkceLogin("c", "v", "r"); }},
        HeldLock{"login_save_token", [](PkceClient& client) { client.PkceLogin("c", "v", "r"); }}));

TEST_F(PkceClientTest, ALockThatCannotBeMadeIsLoggedAndNoToken) {
  StoreValid();
  const char* const path = "/tmp/account_login_get_token.lock";
  std::filesystem::remove(path);
  std::filesystem::create_symlink("/etc/passwd", path);
  EXPECT_EQ(Catch([&] { (void)AccessToken(); }),
            (Thrown{22, "Failed to lock file: /tmp/account_login_get_token.lock"}));
  EXPECT_THAT(LogWithLines(),
              ElementsAre("file_lock:25 Failed to open file: /tmp/account_login_get_token.lock"));
  std::filesystem::remove(path);
}

// --- renewal: what is sent and saved --------------------------------------------------------

TEST_F(PkceClientTest, RenewalSendsTheRefreshTokenForm) {
  StoreExpired();
  (void)AccessToken();
  const Request request = server_.OnlyRequest(kTokenPath);
  EXPECT_THAT(server_.Targets(), ElementsAre("POST https://identity.veltrix.example/oauth2/token"));
  EXPECT_EQ(request.body,
            "grant_type=refresh_token&refresh_token=old-refresh&client_id=login-client");
  EXPECT_EQ(request.HeaderOr("X-Client-ID"), "login-client");
  EXPECT_EQ(request.HeaderOr("User-Agent"), session::kAgent);
  EXPECT_EQ(request.HeaderOr("Content-Type"), "application/x-www-form-urlencoded");
  EXPECT_EQ(request.CountHeaders("Authorization"), 0U);
}

TEST_F(PkceClientTest, AHostileRefreshTokenStaysOneValue) {
  WriteTokens(R"({"refresh_token":"a&client_id=evil\r\nX-Evil: 1","created_at":0,"expires_in":0})");
  (void)AccessToken();
  const Request request = server_.OnlyRequest(kTokenPath);
  EXPECT_EQ(request.body,
            "grant_type=refresh_token&refresh_token=a%26client_id%3Devil%0D%0AX-Evil%3A%201"
            "&client_id=login-client");
  EXPECT_EQ(request.CountHeaders("X-Evil"), 0U);
}

TEST_F(PkceClientTest, RenewalSavesTheWholeAnswerWithTheLocalTime) {
  StoreExpired();
  server_.Answer(kTokenPath, 200,
                 TokenAnswer("new", R"("expires_in":7200,"created_at":5,"other":{"kept":[1]})"));
  EXPECT_EQ(AccessToken(), "new-access");
  Json::Value saved;
  ASSERT_TRUE(json::fromFile(session::kLoginTokens, saved));
  EXPECT_EQ(json::toString(saved),
            R"({"access_token":"new-access","created_at":1700000000,"expires_in":7200,)"
            R"("id_token":"new-id","other":{"kept":[1]},"refresh_token":"new-refresh"})");
}

TEST_F(PkceClientTest, TheTokenFileIsForRootAlone) {
  Exchange();
  struct stat info {};
  ASSERT_EQ(stat(session::kLoginTokens, &info), 0);
  EXPECT_EQ(info.st_mode, S_IFREG | 0600U);
}

TEST_F(PkceClientTest, ARenewedTokenIsNotRenewedAgain) {
  StoreExpired();
  EXPECT_EQ(AccessToken(), "new-access");
  EXPECT_EQ(IdToken(), "new-id");
  EXPECT_EQ(server_.requests().size(), 1U);
}

TEST_F(PkceClientTest, AnswersTokensMayBeNumbers) {
  StoreExpired();
  server_.Answer(kTokenPath, 200,
                 R"({"access_token":1,"id_token":2,"refresh_token":true,"expires_in":"60"})");
  EXPECT_EQ(AccessToken(), "1");
  EXPECT_EQ(IdToken(), "2");
}

TEST_F(PkceClientTest, WithoutAUserAgentOfThePlatformTheAgentIsEmpty) {
  StoreExpired();
  platform().FailNext("KLIBHsinfoUserAgentGet");
  EXPECT_EQ(AccessToken(), "new-access");
  EXPECT_EQ(server_.OnlyRequest(kTokenPath).HeaderOr("User-Agent"), "");
}

TEST_F(PkceClientTest, WithoutConfigurationTheRequestFails) {
  StoreExpired();
  client_.SetConfig(Json::Value());
  const Thrown thrown = Catch([&] { (void)AccessToken(); });
  EXPECT_EQ(thrown.code, kBadResponse);
  EXPECT_THAT(thrown.message, StartsWith("Failed to renew token, reqcode="));
  EXPECT_EQ(ReadTokens(), ExpiredTokens());
}

TEST_F(PkceClientTest, WithoutATokenEndpointTheExchangeFails) {
  Json::Value config(Json::objectValue);
  config["client_id"] = "login-client";
  client_.SetConfig(config);
  const Thrown thrown = Catch([&] { Exchange(); });
  EXPECT_EQ(thrown.code, kBadResponse);
  EXPECT_THAT(thrown.message, StartsWith("Failed to exchange token, reqcode="));
  EXPECT_FALSE(HasTokens());
}

TEST_F(PkceClientTest, WithoutAClientIdAnEmptyOneIsSent) {
  StoreExpired();
  Json::Value config(Json::objectValue);
  config["token_endpoint"] = std::string(session::kIdentity) + kTokenPath;
  client_.SetConfig(config);
  EXPECT_EQ(AccessToken(), "new-access");
  EXPECT_EQ(server_.OnlyRequest(kTokenPath).body,
            "grant_type=refresh_token&refresh_token=old-refresh&client_id=");
}

TEST_F(PkceClientTest, AClientIdWithALineBreakSendsNothing) {
  StoreExpired();
  Json::Value config(Json::objectValue);
  config["client_id"] = "a\r\nX-Evil: 1";
  config["token_endpoint"] = std::string(session::kIdentity) + kTokenPath;
  client_.SetConfig(config);
  EXPECT_EQ(Catch([&] { (void)AccessToken(); }).code, kBadResponse);
  EXPECT_THAT(server_.requests(), IsEmpty());
}

// --- renewal: what fails --------------------------------------------------------------------

TEST_F(PkceClientTest, WithoutARefreshTokenNothingIsSent) {
  WriteTokens(R"({"access_token":"a","id_token":"i","created_at":1,"expires_in":1})");
  EXPECT_EQ(Catch([&] { (void)AccessToken(); }), (Thrown{22, "Failed to get key: refresh_token"}));
  EXPECT_THAT(server_.requests(), IsEmpty());
}

TEST_F(PkceClientTest, WithoutAUserAgentNothingIsRenewed) {
  StoreExpired();
  UserAgentFails() = true;
  EXPECT_EQ(Catch([&] { (void)AccessToken(); }), (Thrown{6, "System error"}));
  EXPECT_THAT(LogWithLines(), ElementsAre("hos_service:45 Failed to get zomi user agent"));
  EXPECT_THAT(server_.requests(), IsEmpty());
  EXPECT_EQ(ReadTokens(), ExpiredTokens());
}

TEST_F(PkceClientTest, ARenewalThatCannotBeSavedKeepsTheOldFile) {
  StoreExpired();
  const FullDisk full;
  EXPECT_EQ(Catch([&] { (void)AccessToken(); }), (Thrown{2, "Wrong JSON format"}));
  EXPECT_EQ(ReadTokens(), ExpiredTokens());
  EXPECT_THAT(LogWithLines(),
              ElementsAre("include/internal/json_utils:31 Failed to save json: "
                          "/usr/kivo/etc/veltrix-account/private/login_token.json"));
}

struct BadAnswer {
  std::string name;
  int status;
  std::string text;
  Thrown thrown;
  std::vector<std::string> log;  // with lines
};

void PrintTo(const BadAnswer& answer, std::ostream* stream) { *stream << answer.name; }

std::string NameOfAnswer(const testing::TestParamInfo<BadAnswer>& test) { return test.param.name; }

// What a renewal makes of an answer with an object and a status that is not 200.
BadAnswer RefusedRenewal(const std::string& name, int status, const std::string& text) {
  const std::string message =
      "Failed to renew token, refresh_token is expired or revoked, code=" + std::to_string(status) +
      ", resp=" + text;
  return {name, status, text, {kAuthFailed, message}, {"pkce_client:136 " + message}};
}

BadAnswer NoObjectRenewal(const std::string& name, int status, const std::string& text) {
  const std::string message =
      "Failed to parse renew token resp, code=" + std::to_string(status) + ", resp=" + text;
  return {name, status, text, {kBadResponse, message}, {"pkce_client:131 " + message}};
}

BadAnswer NoJson(const std::string& name, int status, const std::string& text) {
  return {name, status, text, {kWrongJsonFormat, "Wrong JSON format"}, {kParseLine + text}};
}

BadAnswer IncompleteRenewal(const std::string& name, const std::string& text) {
  Json::Value answer;
  EXPECT_TRUE(json::fromString(text, answer));
  return {
      name,
      200,
      text,
      {kNoToken, "Failed to parse renew token resp, code=200, resp=" + text},
      {"pkce_client:141 Failed to RenewToken by [old-refres], resp=" + answer.toStyledString()}};
}

std::vector<BadAnswer> BadRenewals() {
  const std::string error = R"({"error":"invalid_grant"})";
  std::vector<BadAnswer> answers = {
      RefusedRenewal("Status400", 400, error),
      RefusedRenewal("Status401", 401, error),
      RefusedRenewal("Status403", 403, "{}"),
      RefusedRenewal("Status500", 500, error),
      RefusedRenewal("Status201WithTokens", 201, TokenAnswer("evil")),
      RefusedRenewal("Redirect", 302, TokenAnswer("evil")),
      RefusedRenewal("PercentSigns", 400, R"({"error":"%s%n%d%"})"),
      NoJson("Html400", 400, "<html>sign in</html>"),
      NoObjectRenewal("List400", 400, "[]"),
      NoObjectRenewal("Null500", 500, "null"),
      IncompleteRenewal("NoAccessToken", R"({"id_token":"i","refresh_token":"r"})"),
      IncompleteRenewal("NoIdToken", R"({"access_token":"a","refresh_token":"r"})"),
      IncompleteRenewal("NoRefreshToken", R"({"access_token":"a","id_token":"i"})"),
      IncompleteRenewal("EmptyObject", "{}"),
      IncompleteRenewal("NullToken", R"({"access_token":null,"id_token":"i","refresh_token":"r"})"),
      IncompleteRenewal("ListToken",
                        R"({"access_token":"a","id_token":["i"],"refresh_token":"r"})"),
      IncompleteRenewal("ObjectToken",
                        R"({"access_token":"a","id_token":"i","refresh_token":{"a":"b"}})"),
  };
  for (const NamedText& text : session::TextsThatAreNoJson()) {
    answers.push_back(NoJson("NoJson" + text.name, 200, text.text));
  }
  for (const NamedText& text : session::JsonThatIsNoObject()) {
    answers.push_back(NoObjectRenewal("NoObject" + text.name, 200, text.text));
  }
  return answers;
}

class BadRenewalTest : public PkceClientTest, public testing::WithParamInterface<BadAnswer> {};

TEST_P(BadRenewalTest, IsReportedAndTheFileStaysAsItIs) {
  StoreExpired();
  server_.Answer(kTokenPath, GetParam().status, GetParam().text);
  EXPECT_EQ(Catch([&] { (void)AccessToken(); }), GetParam().thrown);
  EXPECT_EQ(LogWithLines(), GetParam().log);
  EXPECT_EQ(ReadTokens(), ExpiredTokens());
  EXPECT_EQ(platform().live_objects(), 0) << "a lock is still held";
}

INSTANTIATE_TEST_SUITE_P(All, BadRenewalTest, testing::ValuesIn(BadRenewals()), NameOfAnswer);

class LoggedRefreshTokenTest
    : public PkceClientTest,
      public testing::WithParamInterface<std::pair<std::string, std::string>> {};

TEST_P(LoggedRefreshTokenTest, IsCutAfterTenCharacters) {
  Json::Value tokens;
  ASSERT_TRUE(json::fromString(ExpiredTokens(), tokens));
  tokens["refresh_token"] = GetParam().first;
  WriteTokens(json::toString(tokens));
  server_.Answer(kTokenPath, 200, "{}");
  (void)Catch([&] { (void)AccessToken(); });
  EXPECT_THAT(LogWithLines(), ElementsAre("pkce_client:141 Failed to RenewToken by [" +
                                          GetParam().second + "], resp={}\n"));
}

INSTANTIATE_TEST_SUITE_P(All, LoggedRefreshTokenTest,
                         testing::Values(std::pair("", ""), std::pair("short", "short"),
                                         std::pair("123456789", "123456789"),
                                         std::pair("1234567890", "1234567890"),
                                         std::pair("1234567890secret", "1234567890")));

// --- the exchange ---------------------------------------------------------------------------

TEST_F(PkceClientTest, ExchangeSendsTheAuthorizationCodeForm) {
  client_.PkceLogin("c/o+d e", "ver~if.ier-_", "https://account.veltrix.example/login/back?a=b");
  const Request request = server_.OnlyRequest(kTokenPath);
  EXPECT_EQ(request.body,
            "grant_type=authorization_code&client_id=login-client"
            "&redirect_uri=https%3A%2F%2Faccount.veltrix.example%2Flogin%2Fback%3Fa%3Db"
            "&code=c%2Fo%2Bd%20e&code_verifier=ver~if.ier-_");
  EXPECT_EQ(request.HeaderOr("X-Client-ID"), "login-client");
  EXPECT_EQ(request.HeaderOr("User-Agent"), session::kAgent);
}

TEST_F(PkceClientTest, ExchangeSavesTheTokens) {
  server_.Answer(kTokenPath, 200, TokenAnswer("first", R"("expires_in":60,"created_at":"never")"));
  Exchange();
  EXPECT_EQ(AccessToken(), "first-access");
  Json::Value saved;
  ASSERT_TRUE(json::fromFile(session::kLoginTokens, saved));
  EXPECT_EQ(saved["created_at"], Json::Value(Json::Int64{kNow}));
  EXPECT_TRUE(saved["created_at"].isInt64());
}

TEST_F(PkceClientTest, ExchangeReplacesTokensWhateverTheyAre) {
  WriteTokens("broken");
  Exchange();
  EXPECT_EQ(AccessToken(), "new-access");
}

TEST_F(PkceClientTest, WithoutAUserAgentNothingIsExchanged) {
  UserAgentFails() = true;
  EXPECT_EQ(Catch([&] { Exchange(); }), (Thrown{6, "System error"}));
  EXPECT_THAT(server_.requests(), IsEmpty());
}

TEST_F(PkceClientTest, AnExchangeThatCannotBeSavedLeavesNoFile) {
  {
    const FullDisk full;
    EXPECT_EQ(Catch([&] { Exchange(); }), (Thrown{2, "Wrong JSON format"}));
  }
  EXPECT_FALSE(HasTokens());
}

BadAnswer RefusedExchange(const std::string& name, int status, const std::string& text) {
  return {
      name,
      status,
      text,
      {kBadResponse, "Failed to exchange token, code=" + std::to_string(status) + ", resp=" + text},
      {}};
}

BadAnswer IncompleteExchange(const std::string& name, const std::string& text) {
  return {name,
          200,
          text,
          {kNoToken, "Failed to parse exchange authkey resp, code=200, resp=" + text},
          {"pkce_client:102 Failed to PkceLogin by [the code|the verifier], resp=" + text}};
}

std::vector<BadAnswer> BadExchanges() {
  std::vector<BadAnswer> answers = {
      RefusedExchange("Status400", 400, R"({"error":"invalid_grant"})"),
      RefusedExchange("Status401", 401, "{}"),
      RefusedExchange("Html401", 401, "<html></html>"),
      RefusedExchange("Empty401", 401, ""),
      RefusedExchange("Status500WithTokens", 500, TokenAnswer("evil")),
      RefusedExchange("Status201WithTokens", 201, TokenAnswer("evil")),
      RefusedExchange("Redirect", 307, TokenAnswer("evil")),
      RefusedExchange("PercentSigns", 400, "%s%n%d"),
      IncompleteExchange("NoAccessToken", R"({"id_token":"i","refresh_token":"r"})"),
      IncompleteExchange("NoIdToken", R"({"access_token":"a","refresh_token":"r"})"),
      IncompleteExchange("NoRefreshToken", R"({"access_token":"a","id_token":"i"})"),
      IncompleteExchange("NullToken",
                         R"({"access_token":null,"id_token":"i","refresh_token":"r"})"),
      IncompleteExchange("ObjectToken",
                         R"({"access_token":"a","id_token":{},"refresh_token":"r"})"),
  };
  for (const NamedText& text : session::TextsThatAreNoJson()) {
    answers.push_back(NoJson("NoJson" + text.name, 200, text.text));
  }
  for (const NamedText& text : session::JsonThatIsNoObject()) {
    answers.push_back(IncompleteExchange("NoObject" + text.name, text.text));
  }
  return answers;
}

class BadExchangeTest : public PkceClientTest, public testing::WithParamInterface<BadAnswer> {
 protected:
  void ExpectFailure() {
    server_.Answer(kTokenPath, GetParam().status, GetParam().text);
    EXPECT_EQ(Catch([&] { Exchange(); }), GetParam().thrown);
    EXPECT_EQ(LogWithLines(), GetParam().log);
    EXPECT_EQ(platform().live_objects(), 0) << "a lock is still held";
  }
};

TEST_P(BadExchangeTest, IsReportedAndTheFileStaysAsItIs) {
  StoreExpired();
  ExpectFailure();
  EXPECT_EQ(ReadTokens(), ExpiredTokens());
}

TEST_P(BadExchangeTest, IsReportedAndNoFileIsMade) {
  ExpectFailure();
  EXPECT_FALSE(HasTokens());
}

INSTANTIATE_TEST_SUITE_P(All, BadExchangeTest, testing::ValuesIn(BadExchanges()), NameOfAnswer);

// --- transfers that fail --------------------------------------------------------------------

struct BadTransfer {
  std::string name;
  std::string body = "{}";
  devcloud::Fault fault = {};
  CertificateKind certificate = CertificateKind::kGood;
};

void PrintTo(const BadTransfer& transfer, std::ostream* stream) { *stream << transfer.name; }

class TokenTransferTest : public PkceClientTest, public testing::WithParamInterface<BadTransfer> {
 protected:
  TokenTransferTest() {
    StoreExpired();
    CutTimeLimit();
    server_.Answer(kTokenPath, Response{.body = GetParam().body, .fault = GetParam().fault});
    if (GetParam().certificate != CertificateKind::kGood) {
      server_.Show({.certificate = GetParam().certificate});
    }
  }

  void ExpectBadResponse(const Thrown& thrown, const std::string& what) {
    EXPECT_EQ(thrown.code, kBadResponse);
    EXPECT_THAT(thrown.message, MatchesRegex("Failed to " + what + ", reqcode=[0-9]+, reqmsg=.+"));
    EXPECT_EQ(ReadTokens(), ExpiredTokens());
    EXPECT_THAT(Log(), IsEmpty());
  }
};

TEST_P(TokenTransferTest, FailsTheRenewal) {
  ExpectBadResponse(Catch([&] { (void)AccessToken(); }), "renew token");
}

TEST_P(TokenTransferTest, FailsTheExchange) {
  ExpectBadResponse(Catch([&] { Exchange(); }), "exchange token");
}

INSTANTIATE_TEST_SUITE_P(
    All, TokenTransferTest,
    testing::Values(
        BadTransfer{.name = "Dropped", .fault = {.delivery = Delivery::kDrop}},
        BadTransfer{.name = "Truncated",
                    .body = TokenAnswer("evil"),
                    .fault = {.delivery = Delivery::kTruncate}},
        BadTransfer{.name = "Late", .fault = {.delay = std::chrono::hours(1)}},
        BadTransfer{.name = "TooSlow",
                    .fault = {.delivery = Delivery::kSlow, .slow_interval = std::chrono::hours(1)}},
        BadTransfer{.name = "Endless", .fault = {.delivery = Delivery::kEndless}},
        BadTransfer{.name = "Huge",
                    .body = TokenAnswer("evil", R"("x":")" + std::string(1024 * 1024, 'x') + '"')},
        BadTransfer{.name = "Expired", .certificate = CertificateKind::kExpired},
        BadTransfer{.name = "WrongName", .certificate = CertificateKind::kWrongName},
        BadTransfer{.name = "SelfSigned", .certificate = CertificateKind::kSelfSigned},
        BadTransfer{.name = "UnknownAuthority", .certificate = CertificateKind::kUnknownAuthority}),
    [](const auto& test) { return test.param.name; });

// --- many processes at once -----------------------------------------------------------------

// Processes that wait for a common start, each with a client of its own.
class ManyProcesses {
 public:
  ManyProcesses(int count, const std::function<std::string()>& flow) {
    EXPECT_EQ(pipe(start_.data()), 0);
    for (int index = 0; index < count; ++index) Add(flow);
    close(start_[0]);
  }
  ManyProcesses(const ManyProcesses&) = delete;
  ManyProcesses& operator=(const ManyProcesses&) = delete;
  ~ManyProcesses() = default;

  // What each of them said, in no order.
  std::multiset<std::string> Run() {
    close(start_[1]);
    std::multiset<std::string> results;
    for (const int out : outs_) results.insert(ReadAll(out));
    while (wait(nullptr) > 0) {
    }
    return results;
  }

 private:
  void Add(const std::function<std::string()>& flow) {
    std::array<int, 2> ends{};
    EXPECT_EQ(pipe(ends.data()), 0);
    WaitUntilOtherThreadsWait();
    const pid_t child = fork();
    EXPECT_GE(child, 0);
    if (child == 0) BeChild(flow, ends[1]);
    close(ends[1]);
    outs_.push_back(ends[0]);
  }

  void BeChild(const std::function<std::string()>& flow, int out) const {
    close(start_[1]);
    char byte = 0;
    (void)!read(start_[0], &byte, 1);
    std::string result;
    try {
      result = flow();
    } catch (const std::exception& error) {
      result = error.what();
    }
    (void)!write(out, result.data(), result.size());
    _exit(0);
  }

  static std::string ReadAll(int fd) {
    std::string text;
    std::array<char, 4096> block{};
    for (ssize_t count = 0; (count = read(fd, block.data(), block.size())) > 0;) {
      text.append(block.data(), static_cast<std::size_t>(count));
    }
    close(fd);
    return text;
  }

  std::array<int, 2> start_{};
  std::vector<int> outs_;
};

TEST_F(PkceClientTest, ManyProcessesRenewOnce) {
  constexpr int kProcesses = 16;
  StoreExpired();
  // A second renewal, with whatever refresh token, is refused.
  server_.AnswerInTurn(kTokenPath, {Response{.body = TokenAnswer("new")},
                                    Response{.status = 400, .body = R"({"error":"reuse"})"}});
  ManyProcesses processes(kProcesses, [&] { return AccessToken(); });
  const auto results = processes.Run();
  EXPECT_EQ(results.size(), static_cast<std::size_t>(kProcesses));
  EXPECT_EQ(results.count("new-access"), static_cast<std::size_t>(kProcesses)) << *results.begin();
  EXPECT_EQ(server_.requests().size(), 1U);
  EXPECT_EQ(AccessToken(), "new-access");
}

TEST_F(PkceClientTest, ManyProcessesExchangeOneAfterTheOther) {
  constexpr int kProcesses = 8;
  ManyProcesses processes(kProcesses, [&] {
    Exchange();
    return AccessToken();
  });
  EXPECT_EQ(processes.Run().count("new-access"), static_cast<std::size_t>(kProcesses));
}

}  // namespace
}  // namespace nodelink
