#include "account/account_service.h"

#include <string>

#include "core/error_code.h"
#include "core/json.h"
#include "deviceapi/zomi_account_query_info.h"
#include "lab/users.h"
#include "tests/support/child.h"
#include "tests/support/fail_each_call.h"
#include "tests/support/session_fixture.h"

namespace nodelink {
namespace {

using session::Catch;
using session::kLinkedRecord;
using session::kPasswordLoginPath;
using session::kQueryPath;
using session::Thrown;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr char kGoodLogin[] = R"({"code":"good","id":"4711","auth_key":"the key","more":1})";
constexpr char kNoUnlink[] =
    "account_service Failed to unlink /usr/kivo/etc/veltrix-account/private/user.conf";

class AccountServiceTest : public SessionTest {
 protected:
  AccountServiceTest() {
    server_.Answer(kPasswordLoginPath, 200, kGoodLogin);
    server_.Answer(kQueryPath, 200, session::ProfileAnswer());
  }

  static Json::Value Login() { return AccountService().login("anna@example.org", "secret"); }
};

// --- login ----------------------------------------------------------------------------------

TEST_F(AccountServiceTest, LoginGivesTheServersAnswer) {
  EXPECT_EQ(json::toString(Login()),
            R"({"auth_key":"the key","code":"good","id":"4711","more":1})");
  EXPECT_THAT(server_.OnlyRequest(kPasswordLoginPath).body,
              HasSubstr("&email=anna%40example.org&passwd=secret&"));
}

TEST_F(AccountServiceTest, LoginTakesItsTime) {
  std::vector<long> limits;
  hooks().curl_setopt = [&limits](CURLoption option, const interpose::CurlValue& value) {
    if (option == CURLOPT_TIMEOUT) limits.push_back(std::get<long>(value));
    return std::optional<CURLcode>();
  };
  (void)Login();
  EXPECT_THAT(limits, ElementsAre(120, 15)) << "the login, then the profile query";
}

struct LoginFailure {
  const char* name;
  int status;
  const char* body;
  std::uint32_t code;
};

class LoginFailureTest : public AccountServiceTest,
                         public testing::WithParamInterface<LoginFailure> {};

TEST_P(LoginFailureTest, ThrowsTheLoginsCode) {
  server_.Answer(kPasswordLoginPath, GetParam().status, GetParam().body);
  EXPECT_EQ(Catch([] { (void)Login(); }),
            (Thrown{GetParam().code, ErrorCodeToText(GetParam().code)}));
  EXPECT_THAT(Log(),
              Contains("account_service KIVOZOMIAccountLogin failed, email=anna@example.org"));
  EXPECT_FALSE(HasRecord());
}

INSTANTIATE_TEST_SUITE_P(
    All, LoginFailureTest,
    testing::Values(LoginFailure{"NotSent", 500, "", 4}, LoginFailure{"NoJson", 200, "<html>", 2},
                    LoginFailure{"NoCode", 200, "{}", 5},
                    LoginFailure{"BadAuth", 200, R"({"code":"badauth"})", 14},
                    LoginFailure{"Unverified", 200, R"({"code":"account_unverified"})", 18},
                    LoginFailure{"KeyExpired", 200, R"({"code":"apikey_expired"})", 27}),
    [](const auto& test) { return test.param.name; });

TEST_F(AccountServiceTest, LoginWithoutAnIdentifierIsAWrongParameter) {
  EXPECT_EQ(Catch([] { (void)AccountService().login("", "secret"); }),
            (Thrown{1, "Wrong parameters"}));
  EXPECT_THAT(Log(), ElementsAre("zomi_account_login Bad Parameters",
                                 "account_service KIVOZOMIAccountLogin failed, email="));
}

// --- query ----------------------------------------------------------------------------------

class AccountServiceQueryTest : public AccountServiceTest {
 protected:
  AccountServiceQueryTest() {
    WriteRecord("zomiID=\"anna\"\nzomiIDSerial=\"4711\"\nhs_auth_key=\"the key\"\n");
  }
};

TEST_F(AccountServiceQueryTest, GivesTheProfile) {
  const Json::Value profile = AccountService().query();
  EXPECT_EQ(profile["email"], "anna@example.org");
  EXPECT_EQ(profile["auth_key"], "the key");
  EXPECT_TRUE(HasRecord());
}

TEST_F(AccountServiceQueryTest, IsQuick) {
  std::vector<long> limits;
  hooks().curl_setopt = [&limits](CURLoption option, const interpose::CurlValue& value) {
    if (option == CURLOPT_TIMEOUT) limits.push_back(std::get<long>(value));
    return std::optional<CURLcode>();
  };
  (void)AccountService().query();
  EXPECT_THAT(limits, ElementsAre(15));
}

TEST_F(AccountServiceQueryTest, AFreshProfileIsNotAskedFor) {
  WriteRecord(kLinkedRecord);
  EXPECT_EQ(AccountService().query()["email"], "anna@example.org");
  EXPECT_THAT(server_.requests(), IsEmpty());
}

class FailedQueryTest : public AccountServiceQueryTest,
                        public testing::WithParamInterface<LoginFailure> {
 protected:
  FailedQueryTest() { server_.Answer(kQueryPath, GetParam().status, GetParam().body); }
};

TEST_P(FailedQueryTest, DropsTheRecord) {
  EXPECT_EQ(Catch([] { (void)AccountService().query(); }),
            (Thrown{GetParam().code, ErrorCodeToText(GetParam().code)}));
  EXPECT_FALSE(HasRecord());
  EXPECT_THAT(Log(), testing::Not(Contains(kNoUnlink)));
}

TEST_P(FailedQueryTest, OfTheCommandKeepsTheRecord) {
  const std::string record = ReadRecord();
  Json::Value output(Json::objectValue);
  EXPECT_EQ(ZomiAccountQueryInfo(output, Refresh::kYes, Quick::kNo), -1);
  EXPECT_EQ(ReadRecord(), record);
}

INSTANTIATE_TEST_SUITE_P(All, FailedQueryTest,
                         testing::Values(LoginFailure{"NotSent", 500, "", 4},
                                         LoginFailure{"NoJson", 200, "<html>", 2},
                                         LoginFailure{"Incomplete", 200, R"({"code":"good"})", 5}),
                         [](const auto& test) { return test.param.name; });

TEST_F(AccountServiceQueryTest, WithoutAServerTheRecordIsDropped) {
  server_.https().Stop();
  EXPECT_EQ(Catch([] { (void)AccountService().query(); }).code, kRequestNotSent);
  EXPECT_FALSE(HasRecord());
}

TEST_F(AccountServiceQueryTest, WithoutASerialNumberTheRecordIsDropped) {
  platform().FailNext("KLIBGetSerialNumber");
  EXPECT_EQ(Catch([] { (void)AccountService().query(); }).code, kNoSerialNumber);
  EXPECT_FALSE(HasRecord());
}

TEST_F(AccountServiceQueryTest, ARecordThatIsGoneAlreadyIsLogged) {
  server_.Answer(kQueryPath, 200, R"({"code":"badauth"})");
  EXPECT_EQ(Catch([] { (void)AccountService().query(); }),
            (Thrown{3, "Failed to get zomi account"}));
  EXPECT_FALSE(HasRecord());
  EXPECT_THAT(Log(), ElementsAre("zomi_account_query_info Logged out Zomi due to authentication "
                                 "failure.",
                                 kNoUnlink));
}

TEST_F(AccountServiceQueryTest, RefusedPlugInsDoNotKeepTheRecord) {
  server_.Answer(kQueryPath, 200, R"({"code":"badauth"})");
  platform().FailNext("KLIBPluginAction");
  EXPECT_EQ(Catch([] { (void)AccountService().query(); }).code, kNoAccount);
  EXPECT_FALSE(HasRecord());
}

// --- the report job -------------------------------------------------------------------------

class UpdateCrondJobTest : public AccountServiceTest {
 protected:
  UpdateCrondJobTest() {
    WriteRecord(kLinkedRecord);
    platform().schedule_entries = {"/usr/kivo/bin/nodelink --report_info"};
  }

  static void Update() { AccountService().updateCrondJob(); }
};

TEST_F(UpdateCrondJobTest, DropsTheOlderEntryThenSavesTheJob) {
  Update();
  EXPECT_THAT(CallNames(), ElementsAre("KIVOScheduleRemove", "KLIBCFileCheckKeyValue",
                                       "ConfigManager::ConfigManager", "KLIBCFileGetKeyValue",
                                       "ConfigManager::Save"));
  EXPECT_THAT(platform().schedule_entries, IsEmpty());
  EXPECT_EQ(platform().crond_lists["zomi"][0]["crontab"], "1 2 * * *");
  EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(UpdateCrondJobTest, WithoutARecordTheDefaultScheduleIsSaved) {
  RemoveRecord();
  Update();
  EXPECT_EQ(platform().crond_lists["zomi"][0]["crontab"], "~ 9~16 * * 1~5");
}

TEST_F(UpdateCrondJobTest, WithTheReportOffOnlyTheOlderEntryGoes) {
  test_files::Write("/etc/kivoinfo.conf", "zomi_disable_report=\"yes\"\n");
  platform().crond_lists["zomi"] = "as it was";
  Update();
  EXPECT_THAT(platform().schedule_entries, IsEmpty());
  EXPECT_EQ(platform().crond_lists["zomi"], "as it was");
  EXPECT_EQ(platform().call_count("ConfigManager::Remove"), 0U);
}

TEST_F(UpdateCrondJobTest, AnOlderEntryThatStaysDoesNotMatter) {
  platform().FailNext("KIVOScheduleRemove");
  Update();
  EXPECT_EQ(platform().crond_lists["zomi"].size(), 1U);
  EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(UpdateCrondJobTest, AJobThatCannotBeSavedIsOnlyLogged) {
  SetLastErrorCode(77);
  platform().FailNext("ConfigManager::Save");
  Update();
  EXPECT_THAT(Log(), ElementsAre("account_service Failed to add crontab for zomi"));
  EXPECT_EQ(LastErrorCode(), 77U);
}

TEST_F(UpdateCrondJobTest, ARecordThatCannotBeReadThrows) {
  if (!lab::HasOtherUsers()) GTEST_SKIP() << "there is no other user to become";
  EXPECT_EQ(RunInChild([] {
              BecomeIds({1026, 1026, 1026, 100, 100, 100});
              return std::to_string(Catch(Update).code);
            }),
            "6");
}

TEST_F(UpdateCrondJobTest, EveryPlatformCallMayFail) {
  FailEachCall([] { platform().crond_lists["zomi"] = "as it was"; }, [] { Update(); },
               [] {
                 const Json::Value& jobs = platform().crond_lists["zomi"];
                 EXPECT_TRUE(jobs == "as it was" || jobs.size() == 1);
                 EXPECT_EQ(ReadRecord(), kLinkedRecord);
               });
}

}  // namespace
}  // namespace nodelink
