// Answers that come when the device's link is no longer the one that they were asked for.
#include <filesystem>
#include <string>

#include "account/account_service.h"
#include "core/error_code.h"
#include "deviceapi/zomi_account_login.h"
#include "deviceapi/zomi_account_query_info.h"
#include "deviceapi/zomi_report_info.h"
#include "pkce/account_pkce_service.h"
#include "tests/support/session_fixture.h"

namespace nodelink {
namespace {

using fake_hos::PluginRun;
using session::Catch;
using session::kExchangePath;
using session::kGrantPath;
using session::kLinkedRecord;
using session::kLogoutPath;
using session::kNow;
using session::kPasswordLoginPath;
using session::kQueryPath;
using session::kReportPath;
using session::kTokenPath;
using session::Thrown;
using session::TokenAnswer;
using session::TokenFile;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

constexpr char kNewRecord[] =
    "zomiID=\"ben@example.org\"\nzomiIDSerial=\"4712\"\nhs_auth_key=\"key of 4712\"\n";
constexpr char kDropped[] = " The account link has changed, dropping the answer";

class ChangedLinkTest : public SessionTest {
 protected:
  ChangedLinkTest() {
    WriteRecord(kLinkedRecord);
    WriteTokens(TokenFile("old", kNow));
    LetRmWork();
    hooks().sleep = [](unsigned int) {};
    server_.Answer(kReportPath, 200, R"({"code":"good","report_cron_timestring":"7 7 * * *"})");
    server_.Answer(kQueryPath, 200, session::ProfileAnswer());
    server_.Answer(kLogoutPath, 200, R"({"code":"good"})");
    server_.Answer(kTokenPath, 200, TokenAnswer("new"));
    server_.Answer(kGrantPath, 200, R"({"grant_code":"granted"})");
    server_.Answer(kExchangePath, 200, R"({"user_id":"4711","auth_key":"newer key"})");
    server_.Answer(kPasswordLoginPath, 200,
                   R"({"code":"good","id":"4711","auth_key":"newer key"})");
  }

  // As another process does them, while the request of `path` waits.
  void LinkAnewDuring(const char* path) {
    server_.Meanwhile(path, [] {
      WriteRecord(kNewRecord);
      RemoveTokens();
    });
  }
  void EndLinkDuring(const char* path) {
    server_.Meanwhile(path, [] {
      RemoveRecord();
      RemoveTokens();
    });
  }

  void ExpectNewLink() {
    EXPECT_EQ(ReadRecord(), kNewRecord);
    ExpectNothingDone();
  }
  void ExpectNoLink() {
    EXPECT_FALSE(HasRecord());
    ExpectNothingDone();
  }
  void ExpectNothingDone() {
    EXPECT_FALSE(HasTokens());
    EXPECT_THAT(platform().notifications, IsEmpty());
    EXPECT_THAT(platform().plugin_runs, IsEmpty());
    EXPECT_EQ(platform().call_count("ConfigManager::Save"), 0U);
    EXPECT_EQ(platform().call_count("ConfigManager::Remove"), 0U);
  }

  static std::string Value(const std::string& key) {
    const std::string record = ReadRecord();
    const std::string start = key + "=\"";
    const std::size_t begin = record.find(start);
    return begin == std::string::npos
               ? ""
               : record.substr(begin + start.size(),
                               record.find('"', begin + start.size()) - begin - start.size());
  }
};

// --- report -----------------------------------------------------------------------------------

class ChangedReportTest : public ChangedLinkTest, public testing::WithParamInterface<const char*> {
 protected:
  void Report() {
    server_.Answer(
        kReportPath, 200,
        R"({"code":")" + std::string(GetParam()) + R"(","report_cron_timestring":"7 7 * * *"})");
    EXPECT_EQ(ReportDeviceInfo(), -1);
    EXPECT_EQ(LastErrorCode(), kNoAccount);
    EXPECT_THAT(Log(), ElementsAre(std::string("zomi_report_info") + kDropped));
    EXPECT_EQ(server_.requests().size(), 1U);
  }
};

TEST_P(ChangedReportTest, LeavesTheNewLinkAlone) {
  LinkAnewDuring(kReportPath);
  Report();
  ExpectNewLink();
}

TEST_P(ChangedReportTest, DoesNotBringTheEndedLinkBack) {
  EndLinkDuring(kReportPath);
  Report();
  ExpectNoLink();
}

INSTANTIATE_TEST_SUITE_P(Verdicts, ChangedReportTest,
                         testing::Values("good", "badauth", "account_not_found", "badsys"),
                         [](const auto& test) { return test.param; });

// The administrators were told of the end of the link that was there then.
TEST_F(ChangedLinkTest, AForcedLogoutIsOfTheReportedLinkOnly) {
  WriteTokens(TokenFile("old", 0));
  server_.Answer(kReportPath, 200, R"({"code":"badauth"})");
  LinkAnewDuring(kTokenPath);  // the logout renews the token that it sends
  EXPECT_EQ(ReportDeviceInfo(), -1);
  EXPECT_EQ(ReadRecord(), kNewRecord);
  EXPECT_THAT(server_.requests(kLogoutPath), IsEmpty());
  EXPECT_THAT(platform().plugin_runs, IsEmpty());
  EXPECT_THAT(Log(), Contains("zomi_report_info Failed to logout"));
}

TEST_F(ChangedLinkTest, ALinkThatIsMadeRightAfterTheNoticeIsNotLoggedOut) {
  server_.Answer(kReportPath, 200, R"({"code":"badauth"})");
  platform().OnCall("KIVOSysNotifySendNotifiction",
                    [](const fake_hos::Call&) { WriteRecord(kNewRecord); });
  EXPECT_EQ(ReportDeviceInfo(), -1);
  EXPECT_EQ(ReadRecord(), kNewRecord);
  EXPECT_THAT(server_.requests(kLogoutPath), IsEmpty());
}

// --- query ------------------------------------------------------------------------------------

class ChangedQueryTest : public ChangedLinkTest, public testing::WithParamInterface<const char*> {
 protected:
  ChangedQueryTest() {
    SetTime(kNow + 1000);
    std::string answer = session::ProfileAnswer();
    answer.replace(answer.find("good"), 4, GetParam());
    server_.Answer(kQueryPath, 200, answer);
  }

  void Query() {
    Json::Value output(Json::objectValue);
    EXPECT_EQ(ZomiAccountQueryInfo(output, Refresh::kYes, Quick::kNo), -1);
    EXPECT_EQ(LastErrorCode(), kNoAccount);
    EXPECT_THAT(Log(), ElementsAre(std::string("zomi_account_query_info") + kDropped));
    EXPECT_EQ(output, Json::Value(Json::objectValue));
  }
};

TEST_P(ChangedQueryTest, LeavesTheNewLinkAlone) {
  LinkAnewDuring(kQueryPath);
  Query();
  ExpectNewLink();
}

TEST_P(ChangedQueryTest, DoesNotBringTheEndedLinkBack) {
  EndLinkDuring(kQueryPath);
  Query();
  ExpectNoLink();
}

TEST_P(ChangedQueryTest, WithoutALinkBeforeLeavesTheNewOneAlone) {
  RemoveRecord();
  LinkAnewDuring(kQueryPath);
  Query();
  ExpectNewLink();
}

TEST_P(ChangedQueryTest, OfTheServiceDropsNoRecordButItsOwn) {
  LinkAnewDuring(kQueryPath);
  EXPECT_EQ(Catch([] { (void)AccountService().query(); }).code, kNoAccount);
  ExpectNewLink();
}

INSTANTIATE_TEST_SUITE_P(Verdicts, ChangedQueryTest,
                         testing::Values("good", "badauth", "account_not_found"),
                         [](const auto& test) { return test.param; });

TEST_F(ChangedLinkTest, AQueryWithoutARecordStoresItsAnswer) {
  RemoveRecord();
  Json::Value output(Json::objectValue);
  EXPECT_EQ(ZomiAccountQueryInfo(output, Refresh::kYes, Quick::kNo), 0);
  EXPECT_EQ(Value("zomiID"), "anna@example.org");
}

TEST_F(ChangedLinkTest, AFailedQueryOfTheServiceLeavesANewLinkAlone) {
  SetTime(kNow + 1000);
  server_.Answer(kQueryPath, 500, "");
  LinkAnewDuring(kQueryPath);
  EXPECT_EQ(Catch([] { (void)AccountService().query(); }).code, kRequestNotSent);
  ExpectNewLink();
}

// --- tokens -----------------------------------------------------------------------------------

class ChangedTokensTest : public ChangedLinkTest {
 protected:
  static void GetToken() { (void)AccountPkceServiceImpl().GetAccessTokenWithRescue(); }

  static void ExpectDropped() {
    EXPECT_EQ(Catch(GetToken),
              (Thrown{kNoAccount, "The account link has changed, dropping the answer"}));
  }
};

TEST_F(ChangedTokensTest, ARenewalStoresNothingForAnotherLink) {
  WriteTokens(TokenFile("old", 0));
  LinkAnewDuring(kTokenPath);
  ExpectDropped();
  ExpectNewLink();
  EXPECT_THAT(Log(), ElementsAre(std::string("pkce_client") + kDropped));
}

TEST_F(ChangedTokensTest, ARenewalStoresNothingAfterALogout) {
  WriteTokens(TokenFile("old", 0));
  EndLinkDuring(kTokenPath);
  ExpectDropped();
  ExpectNoLink();
}

TEST_F(ChangedTokensTest, ARefusedRenewalRescuesNoOtherLink) {
  WriteTokens(TokenFile("old", 0));
  server_.Answer(kTokenPath, 400, "{}");
  server_.Answer(kGrantPath, 401, "{}");
  LinkAnewDuring(kGrantPath);
  ExpectDropped();
  ExpectNewLink();
  EXPECT_THAT(server_.requests(kLogoutPath), IsEmpty());
  EXPECT_THAT(Log(), Not(Contains(HasSubstr("force logout"))));
}

TEST_F(ChangedTokensTest, ARescueForcesNoLogoutOfAnotherLink) {
  WriteTokens(TokenFile("old", 0));
  server_.AnswerInTurn(kTokenPath, {{.status = 400, .body = "{}"}, {.body = TokenAnswer("new")}});
  LinkAnewDuring(kGrantPath);
  ExpectDropped();
  ExpectNewLink();
  EXPECT_THAT(server_.requests(kLogoutPath), IsEmpty());
}

class ChangedGrantTest : public ChangedTokensTest, public testing::WithParamInterface<const char*> {
 protected:
  ChangedGrantTest() { RemoveTokens(); }
};

TEST_P(ChangedGrantTest, StoresNothingForAnotherLink) {
  LinkAnewDuring(GetParam());
  ExpectDropped();
  ExpectNewLink();
}

TEST_P(ChangedGrantTest, StoresNothingAfterALogout) {
  EndLinkDuring(GetParam());
  ExpectDropped();
  ExpectNoLink();
}

INSTANTIATE_TEST_SUITE_P(Requests, ChangedGrantTest, testing::Values(kGrantPath, kTokenPath),
                         [](const auto& test) {
                           return test.param == std::string(kGrantPath) ? "Grant" : "Exchange";
                         });

// A login in a browser stores its tokens before its record: they must not be replaced.
TEST_F(ChangedTokensTest, TokensThatCameMeanwhileAreNewer) {
  for (const char* path : {kTokenPath, kGrantPath}) {
    SCOPED_TRACE(path);
    const bool renewal = path == std::string(kTokenPath);
    if (renewal) {
      WriteTokens(TokenFile("old", 0));
    } else {
      RemoveTokens();
    }
    server_.Meanwhile(path, [] { WriteTokens(TokenFile("newer", kNow)); });
    EXPECT_EQ(AccountPkceServiceImpl().GetAccessTokenWithRescue(), "newer-access");
    EXPECT_EQ(ReadTokens(), TokenFile("newer", kNow));
  }
  EXPECT_THAT(Log(), IsEmpty());
}

// The refusal was of the tokens before.
TEST_F(ChangedTokensTest, TokensThatCameWhileOthersWereRefusedAreNotReplacedByARescue) {
  WriteTokens(TokenFile("old", 0));
  server_.AnswerInTurn(kTokenPath, {{.status = 400, .body = "{}"}, {.body = TokenAnswer("new")}});
  server_.Meanwhile(kTokenPath, [] { WriteTokens(TokenFile("newer", kNow)); });
  EXPECT_EQ(AccountPkceServiceImpl().GetAccessTokenWithRescue(), "newer-access");
  EXPECT_EQ(ReadTokens(), TokenFile("newer", kNow));
}

TEST_F(ChangedTokensTest, ARecordThatCannotBeReadDoesNotCostTheTokens) {
  RemoveRecord();
  std::filesystem::create_directory("/usr/kivo/etc/veltrix-account/private/user.conf");
  WriteTokens(TokenFile("old", 0));
  EXPECT_EQ(AccountPkceServiceImpl().GetAccessTokenWithRescue(), "new-access");
  EXPECT_THAT(ReadTokens(), HasSubstr("new-refresh"));
}

// --- logout -----------------------------------------------------------------------------------

TEST_F(ChangedLinkTest, ALogoutThatTheServerAgreesToLeavesTheNewLinkAlone) {
  LinkAnewDuring(kLogoutPath);
  AccountPkceServiceImpl().Logout(AccessToken::kInclude);
  ExpectNewLink();
  EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(ChangedLinkTest, ALogoutOfALinkThatEndedMeanwhileClearsWhatIsLeft) {
  server_.Meanwhile(kLogoutPath, [] { RemoveRecord(); });
  AccountPkceServiceImpl().Logout(AccessToken::kInclude);
  EXPECT_FALSE(HasTokens());
  EXPECT_EQ(platform().call_count("ConfigManager::Remove"), 1U);
}

TEST_F(ChangedLinkTest, ALogoutWhoseTokenWasWaitedForEndsNoOtherLink) {
  WriteTokens(TokenFile("old", 0));
  server_.Meanwhile(kTokenPath, [] {
    WriteRecord(kNewRecord);
    WriteTokens(TokenFile("theirs", kNow));
  });
  EXPECT_EQ(Catch([] { AccountPkceServiceImpl().Logout(AccessToken::kInclude); }).code, kNoAccount);
  EXPECT_EQ(ReadRecord(), kNewRecord);
  EXPECT_EQ(ReadTokens(), TokenFile("theirs", kNow));
  EXPECT_THAT(server_.requests(kLogoutPath), IsEmpty());
}

TEST_F(ChangedLinkTest, ALogoutRemovesWhatKilledWritersLeft) {
  const std::string folder = std::string(session::kPrivateFolder) + "/";
  for (const char* name : {".user.conf.tmp-0123456789abcdef", ".login_token.json.tmp-aside"}) {
    test_files::Write(folder + name, "secret", 0600);
  }
  AccountPkceServiceImpl().Logout(AccessToken::kInclude);
  EXPECT_FALSE(test_files::Exists(folder + ".user.conf.tmp-0123456789abcdef"));
  EXPECT_FALSE(test_files::Exists(folder + ".login_token.json.tmp-aside"));
}

// --- logins -----------------------------------------------------------------------------------

class ChangedLoginTest : public ChangedLinkTest {
 protected:
  int LogInByPassword() { return ZomiAccountLogin("anna", "secret", result_, Quick::kNo); }

  static void LogInByBrowser() {
    AccountPkceServiceImpl().Login("code", "verifier", "https://account.veltrix.example/back");
  }

  Json::Value result_;
};

TEST_F(ChangedLoginTest, ALogoutDuringItsProfileUndoesAPasswordLogin) {
  SetTime(kNow + 1000);
  EndLinkDuring(kQueryPath);
  EXPECT_EQ(LogInByPassword(), -1);
  EXPECT_EQ(LastErrorCode(), kNoAccount);
  EXPECT_FALSE(HasRecord());
  EXPECT_THAT(platform().plugin_runs, IsEmpty()) << "told of a login";
  EXPECT_TRUE(result_.isNull());
  EXPECT_EQ(Log().back(), std::string("zomi_account_login") + kDropped);
}

TEST_F(ChangedLoginTest, APasswordLoginWhoseOwnProfileEndsTheLinkIsStillOne) {
  SetTime(kNow + 1000);
  server_.Answer(kQueryPath, 200, R"({"code":"badauth"})");
  EXPECT_EQ(LogInByPassword(), 0);
  EXPECT_FALSE(HasRecord());
  EXPECT_THAT(platform().plugin_runs,
              ElementsAre(PluginRun{"zomi", "zomi/logout", 4}, PluginRun{"zomi", "zomi/login", 5}));
}

TEST_F(ChangedLoginTest, APasswordLoginToAnotherAccountTakesTheFormerTokensAway) {
  server_.Answer(kPasswordLoginPath, 200, R"({"code":"good","id":"5","auth_key":"k"})");
  EXPECT_EQ(LogInByPassword(), 0);
  EXPECT_FALSE(HasTokens());
  WriteTokens(TokenFile("its own", kNow));
  EXPECT_EQ(LogInByPassword(), 0);
  EXPECT_TRUE(HasTokens()) << "the same account once more";
}

// The server gave the link that the device had, and then ended it.
TEST_F(ChangedLoginTest, ALoginDoesNotBringBackTheLinkThatALogoutEnded) {
  server_.Answer(kPasswordLoginPath, 200,
                 R"({"code":"good","id":"4711","auth_key":"key of 4711"})");
  EndLinkDuring(kPasswordLoginPath);
  EXPECT_EQ(LogInByPassword(), -1);
  EXPECT_EQ(LastErrorCode(), kNoAccount);
  ExpectNoLink();
  EXPECT_THAT(Log(), ElementsAre(std::string("zomi_account_login") + kDropped));
  WriteRecord(kLinkedRecord);
  server_.Answer(kExchangePath, 200, R"({"user_id":"4711","auth_key":"key of 4711"})");
  EndLinkDuring(kExchangePath);
  EXPECT_EQ(Catch(LogInByBrowser).code, kNoAccount);
  EXPECT_FALSE(HasRecord());
}

TEST_F(ChangedLoginTest, ALoginOverARecordThatCannotBeReadFailsInItsOwnWrite) {
  RemoveRecord();
  std::filesystem::create_directory("/usr/kivo/etc/veltrix-account/private/user.conf");
  EXPECT_EQ(LogInByPassword(), -1);
  EXPECT_EQ(LastErrorCode(), kAccountNotWritten);
  EXPECT_THAT(Log(), Contains("user Failed to set zomi config for zomiIDSerial:4711"));
  ClearLog();
  EXPECT_EQ(Catch(LogInByBrowser).code, kAccountNotWritten);
  EXPECT_THAT(Log(), Contains("user Failed to set zomi config for "
                              "account_host:https://account.veltrix.example"));
}

TEST_F(ChangedLoginTest, ALogoutDuringItsProfileUndoesABrowserLogin) {
  SetTime(kNow + 1000);
  EndLinkDuring(kQueryPath);
  EXPECT_EQ(Catch(LogInByBrowser).code, kNoAccount);
  EXPECT_FALSE(HasRecord());
  EXPECT_FALSE(HasTokens());
}

TEST_F(ChangedLoginTest, AScheduleThatWasStoredMeanwhileOutlivesAFailedBrowserLogin) {
  SetTime(kNow + 1000);
  server_.Answer(kQueryPath, 500, "");
  server_.Meanwhile(kQueryPath, [] {
    std::string record = ReadRecord();
    const std::string old_line = "report_cron_timestring=\"1 2 * * *\"\n";
    record.replace(record.find(old_line), old_line.size(),
                   "report_cron_timestring=\"7 7 * * *\"\n");
    WriteRecord(record);
  });
  EXPECT_EQ(Catch(LogInByBrowser).code, kRequestNotSent);
  std::string expected = kLinkedRecord;
  expected.replace(expected.find("1 2 * * *"), 9, "7 7 * * *");
  EXPECT_EQ(ReadRecord(), expected);
}

// --- no failure has code 0 --------------------------------------------------------------------

TEST_F(ChangedLoginTest, AQueryWhoseLockCannotBeHadIsAFailureWithACode) {
  HoldLock("query_info");
  SetLastErrorCode(kSuccess);
  EXPECT_EQ(Catch(LogInByBrowser).code, kGenericError);
  EXPECT_EQ(ReadRecord(), kLinkedRecord);
  SetLastErrorCode(kSuccess);
  EXPECT_EQ(Catch([] { (void)AccountService().query(); }).code, kGenericError);
}

TEST_F(ChangedLoginTest, ALoginThatFailedWithoutACodeIsAFailureWithACode) {
  platform().cloud.next_api_key.reset();
  platform().cloud.failure_code = 0;
  EXPECT_EQ(Catch([] { (void)AccountService().login("anna", "secret"); }).code, kGenericError);
}

}  // namespace
}  // namespace nodelink
