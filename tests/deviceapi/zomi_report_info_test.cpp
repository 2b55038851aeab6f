#include "deviceapi/zomi_report_info.h"

#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "core/error_code.h"
#include "core/json.h"
#include "devcloud/api/device_token.h"
#include "tests/support/fail_each_call.h"
#include "tests/support/session_fixture.h"

namespace nodelink {
namespace {

using devcloud::Delivery;
using devcloud::Request;
using devcloud::Response;
using fake_hos::Notification;
using fake_hos::PluginRun;
using session::kGrantPath;
using session::kLinkedRecord;
using session::kLogoutPath;
using session::kNow;
using session::kReportPath;
using session::kTokenPath;
using session::NamedText;
using session::TokenAnswer;
using session::TokenFile;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

constexpr char kLoggedOut[] = "account_pkce_service Logged out Veltrix Account: anna@example.org";
constexpr char kAutoLogout[] =
    "zomi_report_info Failed to auth [anna@example.org] on regularly report, auto logout.";

class ReportTest : public SessionTest {
 protected:
  ReportTest() {
    WriteRecord(kLinkedRecord);
    WriteTokens(OldTokens());
    LetRmWork();
    hooks().sleep = [](unsigned int) {};
    AnswerReport(R"({"code":"good"})");
    server_.Answer(kLogoutPath, 200, R"({"code":"good"})");
    server_.Answer(kTokenPath, 200, TokenAnswer("new"));
    server_.Answer(kGrantPath, 200, R"({"grant_code":"granted"})");
  }

  static std::string OldTokens() { return TokenFile("old", kNow); }

  void AnswerReport(const std::string& body) { server_.Answer(kReportPath, 200, body); }

  static void ExpectSuccess() {
    SetLastErrorCode(77);
    EXPECT_EQ(ReportDeviceInfo(), 0);
    EXPECT_EQ(LastErrorCode(), 0U);
  }

  static void ExpectFailure(std::uint32_t code) {
    EXPECT_EQ(ReportDeviceInfo(), -1);
    EXPECT_EQ(LastErrorCode(), code);
  }

  // The server was not asked, and the device is as it was.
  void ExpectNothingSent() {
    EXPECT_THAT(server_.requests(), IsEmpty());
    ExpectStillLinked();
  }

  static void ExpectStillLinked() {
    EXPECT_EQ(ReadRecord(), kLinkedRecord);
    EXPECT_EQ(ReadTokens(), OldTokens());
    EXPECT_THAT(platform().notifications, IsEmpty());
    EXPECT_THAT(platform().plugin_runs, IsEmpty());
    EXPECT_EQ(platform().call_count("ConfigManager::Remove"), 0U);
  }

  static void ExpectLoggedOut() {
    EXPECT_FALSE(HasRecord());
    EXPECT_FALSE(HasTokens());
    EXPECT_THAT(platform().plugin_runs, ElementsAre(PluginRun{"zomi", "zomi/logout", 4}));
    EXPECT_EQ(platform().call_count("ConfigManager::Remove"), 1U);
  }

  static std::string Schedule() { return platform().crond_lists["zomi"][0]["crontab"].asString(); }
};

// --- nothing to report ----------------------------------------------------------------------

TEST_F(ReportTest, WithoutARecordThereIsNothingToReport) {
  RemoveRecord();
  ExpectSuccess();
  EXPECT_THAT(server_.requests(), IsEmpty());
  EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(ReportTest, WithoutALinkedAccountThereIsNothingToReport) {
  WriteRecord("zomiID=\"\"\nzomiIDSerial=\"4711\"\nhs_auth_key=\"k\"\n");
  ExpectSuccess();
  EXPECT_THAT(server_.requests(), IsEmpty());
}

TEST_F(ReportTest, SwitchedOffItReportsNothing) {
  test_files::Write("/etc/kivoinfo.conf", "zomi_disable_report=\"yes\"\n");
  ExpectSuccess();
  ExpectNothingSent();
}

class ReportSwitchTest : public ReportTest, public testing::WithParamInterface<NamedText> {};

TEST_P(ReportSwitchTest, AnyOtherValueReports) {
  test_files::Write("/etc/kivoinfo.conf", "zomi_disable_report=\"" + GetParam().text + "\"\n");
  ExpectSuccess();
  EXPECT_EQ(server_.requests().size(), 1U);
}

INSTANTIATE_TEST_SUITE_P(All, ReportSwitchTest,
                         testing::ValuesIn(std::vector<NamedText>{
                             {"No", "no"}, {"Empty", ""}, {"True", "true"}, {"Upper", "YES"}}),
                         session::NameOf);

// --- what is sent ---------------------------------------------------------------------------

TEST_F(ReportTest, SendsTheFormOfTheReport) {
  ExpectSuccess();
  const Request request = server_.OnlyRequest(kReportPath);
  EXPECT_EQ(request.body,
            "hs_sn=FAKE123456789&hs_token=" + devcloud::DeviceToken(session::kSerial, "", "") +
                "&id=4711&auth_key=key%20of%204711&timezone=Europe%2FBerlin"
                "&serial_no=FAKE123456789&hs_info=");
  EXPECT_THAT(server_.Targets(),
              ElementsAre("POST https://account.veltrix.example/device/api/report"));
  EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(ReportTest, TheTimeZoneIsTheDatabasesName) {
  platform().device.zone = "Amsterdam";
  platform().device.zone_table = {{"Amsterdam", {{"x", "y"}, {"nameInTZDB", "Europe/A & B"}}}};
  ExpectSuccess();
  EXPECT_THAT(server_.OnlyRequest(kReportPath).body, HasSubstr("&timezone=Europe%2FA%20%26%20B&"));
  EXPECT_THAT(platform().calls("KIVOZoneGet"), ElementsAre(fake_hos::Call{"KIVOZoneGet", {"256"}}));
}

TEST_F(ReportTest, TakesItsTime) {
  std::vector<long> limits;
  hooks().curl_setopt = [&limits](CURLoption option, const interpose::CurlValue& value) {
    if (option == CURLOPT_TIMEOUT) limits.push_back(std::get<long>(value));
    return std::optional<CURLcode>();
  };
  ExpectSuccess();
  EXPECT_THAT(limits, ElementsAre(120));
}

TEST_F(ReportTest, GoesToTheUserDefinedHost) {
  WriteRecord(std::string(kLinkedRecord) + "account_host=\"https://localhost\"\n");
  ExpectSuccess();
  EXPECT_THAT(server_.Targets(), ElementsAre("POST https://localhost/device/api/report"));
}

// --- what cannot be sent --------------------------------------------------------------------

struct LocalFailure {
  const char* name;
  void (*cause)(fake_hos::Platform&);
  std::uint32_t code;
  const char* log;  // its last line
};

void PrintTo(const LocalFailure& failure, std::ostream* stream) { *stream << failure.name; }

class LocalFailureTest : public ReportTest, public testing::WithParamInterface<LocalFailure> {};

TEST_P(LocalFailureTest, EndsTheReport) {
  GetParam().cause(platform());
  ExpectFailure(GetParam().code);
  EXPECT_EQ(Log().back(), "zomi_report_info " + std::string(GetParam().log));
  ExpectNothingSent();
}

INSTANTIATE_TEST_SUITE_P(
    All, LocalFailureTest,
    testing::Values(
        LocalFailure{"ServerConfig", [](fake_hos::Platform&) { ServerConfigFails() = true; }, 23,
                     "KIVOZOMIServerConfigGet, code=0"},
        LocalFailure{"ZoneName", [](fake_hos::Platform& fake) { fake.FailNext("KIVOZoneGet"); }, 6,
                     "failed to get time zone, size need: -1, err=[0x0900 fake_hos:1]"},
        LocalFailure{"LongZoneName",
                     [](fake_hos::Platform& fake) { fake.device.zone = std::string(256, 'z'); }, 6,
                     "failed to get time zone, size need: 257, err=[0x0900 fake_hos:1]"},
        LocalFailure{"ZoneMemory",
                     [](fake_hos::Platform& fake) { fake.FailCall("KLIBCSzHashAlloc", 2); }, 6,
                     "Failed to alloc pTZInfo, err=[0x0900 fake_hos:1]"},
        LocalFailure{"ZoneInfo", [](fake_hos::Platform& fake) { fake.FailNext("KIVOZoneGetInfo"); },
                     6, "failed to get timezone info[0x0900 fake_hos:1]"},
        LocalFailure{"UnknownZone",
                     [](fake_hos::Platform& fake) { fake.device.zone_table.clear(); }, 6,
                     "failed to get timezone info[0x0900 fake_hos:1]"},
        LocalFailure{"ZoneWithoutName",
                     [](fake_hos::Platform& fake) {
                       fake.device.zone_table = {{"Europe/Berlin", {{"utcOffset", "0"}}}};
                     },
                     6, "failed to get tmz[0x0000 :0]"},
        LocalFailure{"SerialNumber",
                     [](fake_hos::Platform& fake) { fake.FailNext("KLIBGetSerialNumber"); }, 8,
                     "Failed to get serial number, err=[0x0900 fake_hos:1]"},
        LocalFailure{"FormMemory",
                     [](fake_hos::Platform& fake) { fake.FailCall("KLIBCSzHashAlloc", 3); }, 6,
                     "Failed to alloc https request, err=[0x0900 fake_hos:1]"},
        LocalFailure{"FormValue",
                     [](fake_hos::Platform& fake) { fake.FailNext("KLIBCSzHashSetValue"); }, 6,
                     "Failed to alloc https request, err=[0x0900 fake_hos:1]"},
        LocalFailure{"Sender",
                     [](fake_hos::Platform& fake) { fake.FailNext("KLIBCSzHashEnumKey"); }, 4,
                     "Failed to send https request. err=[0x0900 fake_hos:1]"}),
    [](const auto& test) { return test.param.name; });

struct BadTransfer {
  std::string name;
  Response response;
};

void PrintTo(const BadTransfer& transfer, std::ostream* stream) { *stream << transfer.name; }

class BadReportTransferTest : public ReportTest, public testing::WithParamInterface<BadTransfer> {};

TEST_P(BadReportTransferTest, IsARequestNotSent) {
  server_.Answer(kReportPath, GetParam().response);
  ExpectFailure(kRequestNotSent);
  EXPECT_EQ(Log().back(), "zomi_report_info Failed to send https request. err=[0x0000 :0]");
  ExpectStillLinked();
}

INSTANTIATE_TEST_SUITE_P(
    All, BadReportTransferTest,
    testing::Values(
        BadTransfer{"Status500", {.status = 500, .body = R"({"code":"badauth"})"}},
        BadTransfer{"Status401", {.status = 401, .body = R"({"code":"badauth"})"}},
        BadTransfer{"EmptyBody", {.body = ""}},
        BadTransfer{"RedirectToHttp",
                    {.status = 302, .headers = {{"Location", "http://localhost/"}}, .body = "x"}},
        BadTransfer{"Dropped", {.fault = {.delivery = Delivery::kDrop}}},
        BadTransfer{"Truncated",
                    {.body = R"({"code":"badauth"})", .fault = {.delivery = Delivery::kTruncate}}},
        BadTransfer{"Endless", {.body = "x", .fault = {.delivery = Delivery::kEndless}}}),
    [](const auto& test) { return test.param.name; });

// --- answers that say nothing ---------------------------------------------------------------

class BadReportTextTest : public ReportTest, public testing::WithParamInterface<NamedText> {};

TEST_P(BadReportTextTest, IsWrongJson) {
  const std::string text = "x" + GetParam().text;  // an empty body is no answer at all
  AnswerReport(text);
  ExpectFailure(kWrongJsonFormat);
  EXPECT_THAT(Log(), ElementsAre(StartsWith("zomi_report_info Failed to parse json: x")));
  ExpectStillLinked();
}

INSTANTIATE_TEST_SUITE_P(All, BadReportTextTest, testing::ValuesIn(session::TextsThatAreNoJson()),
                         session::NameOf);

TEST_F(ReportTest, TheTextThatIsNoJsonIsLogged) {
  AnswerReport("<html>%s%n</html>");
  ExpectFailure(kWrongJsonFormat);
  EXPECT_THAT(Log(), ElementsAre("zomi_report_info Failed to parse json: <html>%s%n</html>"));
}

TEST_F(ReportTest, NullAsTheVerdictIsAnUnknownWord) {
  AnswerReport(R"({"code":null})");
  ExpectFailure(kGenericError);
  ExpectStillLinked();
}

TEST_F(ReportTest, AnAnswerOfStatus400IsReadToo) {
  server_.Answer(kReportPath, 400, R"({"code":"badparam"})");
  ExpectFailure(kWrongParameters);
  ExpectStillLinked();
}

class NoVerdictTest : public ReportTest, public testing::WithParamInterface<NamedText> {};

TEST_P(NoVerdictTest, IsABadResponseWithoutALogLine) {
  AnswerReport(GetParam().text);
  ExpectFailure(kBadResponse);
  EXPECT_THAT(Log(), IsEmpty());
  ExpectStillLinked();
}

INSTANTIATE_TEST_SUITE_P(Shapes, NoVerdictTest, testing::ValuesIn(session::JsonThatIsNoObject()),
                         session::NameOf);
INSTANTIATE_TEST_SUITE_P(Objects, NoVerdictTest,
                         testing::ValuesIn(std::vector<NamedText>{
                             {"Empty", "{}"},
                             {"OnlyASchedule", R"({"report_cron_timestring":"9 9 * * *"})"},
                             {"CodeObject", R"({"code":{"good":1}})"},
                             {"CodeList", R"({"code":["good"]})"},
                         }),
                         session::NameOf);

// --- a good verdict -------------------------------------------------------------------------

TEST_F(ReportTest, AGoodVerdictRewritesTheJobAndKeepsAValidToken) {
  platform().schedule_entries = {"/usr/kivo/bin/nodelink --report_info"};
  ExpectSuccess();
  EXPECT_EQ(Schedule(), "1 2 * * *");
  EXPECT_THAT(platform().schedule_entries, IsEmpty());
  EXPECT_EQ(server_.requests().size(), 1U);
  ExpectStillLinked();
}

TEST_F(ReportTest, ANewScheduleIsStoredAndInstalled) {
  AnswerReport(R"({"code":"good","report_cron_timestring":"~ 3~5 * * *"})");
  ExpectSuccess();
  EXPECT_THAT(ReadRecord(), HasSubstr("report_cron_timestring=\"~ 3~5 * * *\"\n"));
  EXPECT_EQ(Schedule(), "~ 3~5 * * *");
}

TEST_F(ReportTest, AGoodVerdictRenewsAnExpiredTokenAfterTheJobIsSaved) {
  WriteTokens(TokenFile("old", 0));
  std::size_t requests_at_save = 0;
  platform().OnCall("ConfigManager::Save",
                    [&](const fake_hos::Call&) { requests_at_save = server_.requests().size(); });
  ExpectSuccess();
  EXPECT_EQ(requests_at_save, 1U);
  EXPECT_EQ(server_.OnlyRequest(kTokenPath).body,
            "grant_type=refresh_token&refresh_token=old-refresh&client_id=login-client");
  EXPECT_THAT(ReadTokens(), HasSubstr("new-access"));
}

TEST_F(ReportTest, ADeviceWithoutTokensGetsThemByItsAuthKey) {
  RemoveTokens();
  ExpectSuccess();
  EXPECT_EQ(server_.requests(kGrantPath).size(), 1U);
  EXPECT_THAT(ReadTokens(), HasSubstr("new-access"));
}

TEST_F(ReportTest, AUserIdAsTheVerdictIsGood) {
  AnswerReport(R"({"code":"account_userid"})");
  ExpectSuccess();
}

TEST_F(ReportTest, ATokenThatCannotBeRenewedIsLoggedAndTheReportStillGood) {
  WriteTokens(TokenFile("old", 0));
  server_.Answer(kTokenPath, 200, "{}");
  ExpectSuccess();
  EXPECT_THAT(Log(), Contains(StartsWith("zomi_report_info Failed to renew token: Failed to parse "
                                         "renew token resp, code=200, resp={} [code=22]\n")));
  EXPECT_EQ(ReadTokens(), TokenFile("old", 0));
}

TEST_F(ReportTest, WithoutTheTokensConfigurationTheReportIsStillGood) {
  std::filesystem::remove(session::kLoginConfigPath);
  ExpectSuccess();
  EXPECT_THAT(Log(), ElementsAre(StartsWith("zomi_report_info Failed to renew token: Wrong JSON "
                                            "format [code=2]\n")));
}

TEST_F(ReportTest, ARescueThatEndsInALogoutIsStillAGoodReport) {
  WriteTokens(TokenFile("old", 0));
  server_.Answer(kTokenPath, 400, "{}");
  server_.Answer(kGrantPath, 401, "{}");
  ExpectSuccess();
  ExpectLoggedOut();
  EXPECT_THAT(platform().notifications, IsEmpty());
}

TEST_F(ReportTest, AJobThatCannotBeSavedIsLoggedAndTheReportStillGood) {
  platform().FailNext("ConfigManager::Save");
  ExpectSuccess();
  EXPECT_THAT(Log(), ElementsAre("account_service Failed to add crontab for zomi"));
}

// --- schedules ------------------------------------------------------------------------------

TEST_F(ReportTest, AScheduleIsStoredWhateverTheVerdict) {
  AnswerReport(R"({"code":"badsys","report_cron_timestring":"7 7 * * *"})");
  ExpectFailure(kSystemError);
  EXPECT_THAT(ReadRecord(), HasSubstr("report_cron_timestring=\"7 7 * * *\"\n"));
  EXPECT_EQ(platform().call_count("ConfigManager::Save"), 0U) << "the job is not rewritten";
}

class HostileScheduleTest : public ReportTest, public testing::WithParamInterface<NamedText> {};

TEST_P(HostileScheduleTest, IsNotWrittenAndTheVerdictStands) {
  AnswerReport(R"({"code":"good","report_cron_timestring":")" + GetParam().text + "\"}");
  ExpectSuccess();
  EXPECT_THAT(Log(), ElementsAre(StartsWith("user Failed to set zomi config for "
                                            "report_cron_timestring:"),
                                 StartsWith("zomi_report_info Failed to set user: System error "
                                            "[code=19]\n")));
  EXPECT_EQ(Schedule(), "1 2 * * *");
  ExpectStillLinked();
  AnswerReport(R"({"code":"badsys","report_cron_timestring":")" + GetParam().text + "\"}");
  ExpectFailure(kSystemError);
  ExpectStillLinked();
}

INSTANTIATE_TEST_SUITE_P(All, HostileScheduleTest,
                         testing::ValuesIn(std::vector<NamedText>{
                             {"LineFeed", R"(1 2 * * *\nzomiID=\"evil\")"},
                             {"CarriageReturn", R"(1 2 * * *\r\n* * * * * root rm)"},
                             {"Nul", R"(1 2 * * *\u0000)"},
                         }),
                         session::NameOf);

TEST_F(ReportTest, AScheduleThatTheCronLibraryRefusesIsLoggedAndKeepsTheJob) {
  platform().crond_lists["zomi"] = "as it was";
  AnswerReport(R"({"code":"good","report_cron_timestring":"@reboot root rm -rf /"})");
  ExpectSuccess();
  EXPECT_EQ(platform().crond_lists["zomi"], "as it was");
  EXPECT_THAT(Log(), ElementsAre("account_service Failed to add crontab for zomi"));
}

class ScheduleTypeTest : public ReportTest, public testing::WithParamInterface<NamedText> {};

TEST_P(ScheduleTypeTest, WhatIsNoTextCountsAsMissing) {
  AnswerReport(R"({"code":"good","report_cron_timestring":)" + GetParam().text + "}");
  ExpectSuccess();
  ExpectStillLinked();
  EXPECT_EQ(Schedule(), "1 2 * * *");
}

INSTANTIATE_TEST_SUITE_P(All, ScheduleTypeTest,
                         testing::ValuesIn(std::vector<NamedText>{{"Object", R"({"a":"b"})"},
                                                                  {"List", R"(["a"])"}}),
                         session::NameOf);

TEST_F(ReportTest, AnEmptyScheduleIsTheDefault) {
  for (const char* schedule : {"\"\"", "null"}) {
    WriteRecord(session::kLinkedRecord);
    AnswerReport(R"({"code":"good","report_cron_timestring":)" + std::string(schedule) + "}");
    ExpectSuccess();
    EXPECT_EQ(Schedule(), "~ 9~16 * * 1~5");
  }
}

TEST_F(ReportTest, AScheduleThatCannotBeWrittenDoesNotKeepTheVerdictBack) {
  AnswerReport(R"({"code":"badauth","report_cron_timestring":"7 7 * * *"})");
  platform().FailNext("KLIBCFileSetKeyValue");
  ExpectFailure(kAuthFailed);
  EXPECT_THAT(platform().notifications, testing::SizeIs(1));
  EXPECT_FALSE(HasRecord());
}

// --- refusals -------------------------------------------------------------------------------

struct Refusal {
  std::string word;
  std::uint32_t code;
};

void PrintTo(const Refusal& refusal, std::ostream* stream) { *stream << refusal.word; }

class RefusalTest : public ReportTest, public testing::WithParamInterface<Refusal> {};

TEST_P(RefusalTest, FailsWithoutALogout) {
  const std::string answer = R"({"code":")" + GetParam().word + "\"}";
  AnswerReport(answer);
  ExpectFailure(GetParam().code);
  EXPECT_THAT(Log(), ElementsAre("zomi_report_info Failed to query service check, resp=" + answer));
  EXPECT_EQ(server_.requests().size(), 1U);
  EXPECT_EQ(platform().call_count("ConfigManager::Save"), 0U);
  ExpectStillLinked();
}

INSTANTIATE_TEST_SUITE_P(All, RefusalTest,
                         testing::Values(Refusal{"badparam", 1}, Refusal{"badsys", 6},
                                         Refusal{"badnetwork", 15}, Refusal{"account_inused", 16},
                                         Refusal{"serial_exceed_max_account_register", 17},
                                         Refusal{"account_unverified", 18},
                                         Refusal{"apikey_not_found", 26},
                                         Refusal{"apikey_expired", 27}, Refusal{"unheard_of", 24},
                                         Refusal{"", 24}, Refusal{"BADAUTH", 24}),
                         [](const auto& test) { return "Word_" + test.param.word; });

TEST_F(ReportTest, ANumberAsTheVerdictIsNoWordOfTheServers) {
  AnswerReport(R"({"code":0})");
  ExpectFailure(kGenericError);
  ExpectStillLinked();
}

TEST_F(ReportTest, BadAuthNotifiesWithEmailAndLinkAndLogsTheDeviceOut) {
  AnswerReport(R"({"code":"badauth"})");
  ExpectFailure(kAuthFailed);
  EXPECT_THAT(platform().notifications,
              ElementsAre(Notification{"zomi_force_logout",
                                       {{"%EMAIL%", "anna@example.org"},
                                        {"%LINK%", "https://account.veltrix.example"}}}));
  ExpectLoggedOut();
  EXPECT_EQ(server_.OnlyRequest(kLogoutPath).body,
            "serial_no=FAKE123456789&id=4711&auth_key=key%20of%204711&access_token=old-access");
  EXPECT_THAT(Log(), ElementsAre(kAutoLogout, kLoggedOut,
                                 "zomi_report_info Failed to query service check, "
                                 "resp={\"code\":\"badauth\"}"));
}

TEST_F(ReportTest, TheLinkIsTheUserDefinedHost) {
  WriteRecord(std::string(kLinkedRecord) + "account_host=\"https://localhost\"\n");
  AnswerReport(R"({"code":"badauth"})");
  ExpectFailure(kAuthFailed);
  EXPECT_EQ(platform().notifications.at(0).params.at(1).second, "https://localhost");
}

TEST_F(ReportTest, AccountNotFoundNotifiesWithTheEmailOnlyAndLogsTheDeviceOut) {
  AnswerReport(R"({"code":"account_not_found"})");
  ExpectFailure(kAccountNotFound);
  EXPECT_THAT(platform().notifications,
              ElementsAre(Notification{"zomi_deletion_logout", {{"%EMAIL%", "anna@example.org"}}}));
  ExpectLoggedOut();
  EXPECT_THAT(Log(), Contains(kAutoLogout));
}

TEST_F(ReportTest, TheNotificationIsSentBeforeTheLogout) {
  AnswerReport(R"({"code":"badauth"})");
  std::size_t requests_at_notification = 0;
  platform().OnCall("KIVOSysNotifySendNotifiction", [&](const fake_hos::Call&) {
    requests_at_notification = server_.requests().size();
    EXPECT_EQ(ReadRecord(), kLinkedRecord);
  });
  ExpectFailure(kAuthFailed);
  EXPECT_EQ(requests_at_notification, 1U);
}

TEST_F(ReportTest, ANotificationThatFailsDoesNotStopTheLogout) {
  AnswerReport(R"({"code":"badauth"})");
  platform().FailNext("KIVOSysNotifySendNotifiction");
  ExpectFailure(kAuthFailed);
  ExpectLoggedOut();
}

TEST_F(ReportTest, ALogoutThatFailsKeepsTheDeviceAndTheVerdictsCode) {
  AnswerReport(R"({"code":"badauth"})");
  server_.Answer(kLogoutPath, 200, R"({"code":"badsys"})");
  ExpectFailure(kAuthFailed);
  EXPECT_EQ(ReadRecord(), kLinkedRecord);
  EXPECT_EQ(ReadTokens(), OldTokens());
  EXPECT_EQ(platform().notifications.size(), 1U);
  EXPECT_THAT(Log(), ElementsAre(kAutoLogout, "zomi_report_info Failed to logout",
                                 "zomi_report_info Failed to query service check, "
                                 "resp={\"code\":\"badauth\"}"));
}

TEST_F(ReportTest, ALogoutWithoutItsConfigurationFailsLikewise) {
  AnswerReport(R"({"code":"account_not_found"})");
  std::filesystem::remove(session::kLoginConfigPath);
  ExpectFailure(kAccountNotFound);
  EXPECT_THAT(Log(), Contains("zomi_report_info Failed to logout"));
  EXPECT_EQ(ReadRecord(), kLinkedRecord);
}

TEST_F(ReportTest, AnEmailWithPercentSignsIsLoggedAsItIs) {
  WriteRecord("zomiID=\"%s%n@x\"\nzomiIDSerial=\"1\"\nhs_auth_key=\"k\"\n");
  AnswerReport(R"({"code":"badauth"})");
  ExpectFailure(kAuthFailed);
  EXPECT_THAT(Log(), Contains("zomi_report_info Failed to auth [%s%n@x] on regularly report, auto "
                              "logout."));
}

// --- every call -----------------------------------------------------------------------------

class ReportFailureTest : public ReportTest, public testing::WithParamInterface<NamedText> {};

TEST_P(ReportFailureTest, AnyPlatformCallMayFail) {
  hooks().usleep = [](useconds_t) {};
  AnswerReport(GetParam().text);
  int result = 0;
  const std::string new_record =
      std::string(kLinkedRecord).replace(std::string(kLinkedRecord).find("1 2 *"), 5, "3 4 *");
  FailEachCall(
      [&] {
        LetRmWork();
        WriteRecord(kLinkedRecord);
        WriteTokens(TokenFile("old", 0));
      },
      [&] { result = ReportDeviceInfo(); },
      [&] {
        const std::uint32_t code = LastErrorCode();
        EXPECT_TRUE(result == 0 || result == -1);
        EXPECT_EQ(result == -1, code != 0 && result != 0);
        EXPECT_TRUE(code <= 8 || (code >= 14 && code <= 27)) << code;
        EXPECT_TRUE(!HasRecord() || ReadRecord() == kLinkedRecord || ReadRecord() == new_record)
            << ReadRecord();
        Json::Value tokens;
        EXPECT_TRUE(!HasTokens() || json::fromFile(session::kLoginTokens, tokens));
      });
}

INSTANTIATE_TEST_SUITE_P(
    All, ReportFailureTest,
    testing::Values(NamedText{"Good", R"({"code":"good","report_cron_timestring":"3 4 * * *"})"},
                    NamedText{"BadAuth",
                              R"({"code":"badauth","report_cron_timestring":"3 4 * * *"})"},
                    NamedText{"AccountNotFound", R"({"code":"account_not_found"})"}),
    session::NameOf);

}  // namespace
}  // namespace nodelink
