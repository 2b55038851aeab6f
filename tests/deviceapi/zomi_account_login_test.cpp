#include "deviceapi/zomi_account_login.h"

#include <algorithm>
#include <string>
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
using fake_hos::Call;
using fake_hos::LogEvent;
using fake_hos::PluginRun;
using session::kPasswordLoginPath;
using session::kQueryPath;
using session::NamedText;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

constexpr char kEmail[] = "anna@example.org";
constexpr char kPassword[] = "p w&=%+\xC3\xA9";
constexpr char kGood[] = R"({"code":"good","id":"4711","auth_key":"the key"})";
constexpr char kOldRecord[] = "zomiID=\"old\"\nzomiIDSerial=\"1\"\nhs_auth_key=\"2\"\n# kept\n";
constexpr char kWelcome[] = "zomi_account_login Logged in Zomi Center as anna@example.org";

class PasswordLoginTest : public SessionTest {
 protected:
  PasswordLoginTest() {
    hooks().sleep = [](unsigned int) {};
    AnswerLogin(kGood);
    server_.Answer(kQueryPath, 200, session::ProfileAnswer());
  }

  void AnswerLogin(const std::string& body) { server_.Answer(kPasswordLoginPath, 200, body); }
  void AnswerLogins(const std::string& first, const std::string& second) {
    server_.AnswerInTurn(kPasswordLoginPath, {Response{.body = first}, Response{.body = second}});
  }

  int Login(const std::string& email = kEmail, const std::string& password = kPassword,
            Quick quick = Quick::kNo) {
    return ZomiAccountLogin(email, password, result_, quick);
  }

  void ExpectSuccess() { EXPECT_EQ(Login(), 0); }

  // The login fails and leaves the device as it was.
  void ExpectFailure(std::uint32_t code) {
    WriteRecord(kOldRecord);
    EXPECT_EQ(Login(), -1);
    EXPECT_EQ(LastErrorCode(), code);
    ExpectUnchanged();
  }

  void ExpectUnchanged() {
    EXPECT_EQ(ReadRecord(), kOldRecord);
    EXPECT_TRUE(result_.isNull());
    EXPECT_THAT(platform().plugin_runs, IsEmpty());
    EXPECT_THAT(platform().events, IsEmpty());
    EXPECT_EQ(platform().call_count("ConfigManager::Save"), 0U);
    EXPECT_THAT(server_.requests(kQueryPath), IsEmpty());
    EXPECT_THAT(Log(), Not(Contains(HasSubstr("Logged in"))));
    EXPECT_THAT(Log(), Not(Contains(HasSubstr(kPassword)))) << "the password is in the log";
  }

  static std::string Form(const std::string& api_key) {
    return "hs_sn=FAKE123456789&hs_token=" + devcloud::DeviceToken(session::kSerial, "", "") +
           "&type=acnt_pw_apikey&email=anna%40example.org&passwd=p%20w%26%3D%25%2B%C3%A9"
           "&serial_no=FAKE123456789&api_key=" +
           api_key + "&mac=02%3A11%3A22%3A33%3A44%3A55";
  }

  // The values that the requests' time limits were set to, in seconds.
  std::vector<long>& RecordTimeLimits() {
    hooks().curl_setopt = [this](CURLoption option, const interpose::CurlValue& value) {
      if (option == CURLOPT_TIMEOUT) limits_.push_back(std::get<long>(value));
      return std::optional<CURLcode>();
    };
    return limits_;
  }

  Json::Value result_;

 private:
  std::vector<long> limits_;
};

// --- success --------------------------------------------------------------------------------

TEST_F(PasswordLoginTest, SendsTheFormOfTheLogin) {
  ExpectSuccess();
  EXPECT_EQ(server_.OnlyRequest(kPasswordLoginPath).body, Form("fake-api-key"));
  EXPECT_THAT(server_.Targets(),
              ElementsAre("POST https://account.veltrix.example/device/api/password_login",
                          "POST https://account.veltrix.example/device/api/user/query"));
}

TEST_F(PasswordLoginTest, StoresSerialThenAuthKeyAndTheProfile) {
  ExpectSuccess();
  std::vector<std::string> keys;
  for (const Call& call : platform().calls("KLIBCFileSetKeyValue")) keys.push_back(call.args[1]);
  ASSERT_GE(keys.size(), 3U);
  keys.resize(3);
  EXPECT_THAT(keys, ElementsAre("zomiIDSerial", "hs_auth_key", "zomiID"));
  EXPECT_THAT(ReadRecord(), HasSubstr("zomiIDSerial=\"4711\"\nhs_auth_key=\"the key\"\n"));
  EXPECT_THAT(ReadRecord(), HasSubstr("zomiID=\"anna@example.org\"\n"));
}

TEST_F(PasswordLoginTest, GivesTheServersAnswer) {
  AnswerLogin(R"({"code":"good","id":4711,"auth_key":"k","more":{"a":[null]}})");
  ExpectSuccess();
  EXPECT_EQ(json::toString(result_),
            R"({"auth_key":"k","code":"good","id":4711,"more":{"a":[null]}})");
  EXPECT_THAT(ReadRecord(), HasSubstr("zomiIDSerial=\"4711\"\n"));
}

TEST_F(PasswordLoginTest, InstallsTheJobWritesTheEventAsksForTheProfileAndTellsThePlugIns) {
  ExpectSuccess();
  std::vector<std::string> steps;
  for (const std::string& name : CallNames()) {
    if (name.starts_with("KLIBPlugin") || name == "ConfigManager::Save" || name == "KIVOLogSet1" ||
        name == "KLIBCFileLockByFile") {
      steps.push_back(name);
    }
  }
  EXPECT_THAT(steps, ElementsAre("KLIBPluginSDKInit", "ConfigManager::Save", "KIVOLogSet1",
                                 "KLIBCFileLockByFile", "KLIBPluginAction", "KLIBPluginExit"));
  EXPECT_THAT(platform().calls("KLIBPluginSDKInit"),
              ElementsAre(Call{"KLIBPluginSDKInit", {"zomi", "zomi/login", "handle"}}));
  EXPECT_THAT(platform().plugin_runs, ElementsAre(PluginRun{"zomi", "zomi/login", 5}));
  EXPECT_THAT(platform().events, ElementsAre(LogEvent{2, 1, 0x13A00001, {kEmail, "", "", ""}}));
  EXPECT_THAT(Log(), ElementsAre(kWelcome));
}

TEST_F(PasswordLoginTest, TheJobHasTheRecordsSchedule) {
  WriteRecord("report_cron_timestring=\"5 6 * * *\"\n");
  ExpectSuccess();
  EXPECT_EQ(platform().crond_lists["zomi"][0]["crontab"], "5 6 * * *");
}

TEST_F(PasswordLoginTest, AUserIdAsTheVerdictIsGood) {
  AnswerLogin(R"({"code":"account_userid","id":"1","auth_key":"k"})");
  ExpectSuccess();
}

TEST_F(PasswordLoginTest, TakesItsTimeOrNotButTheProfileIsAlwaysQuick) {
  std::vector<long>& limits = RecordTimeLimits();
  ExpectSuccess();
  EXPECT_THAT(limits, ElementsAre(120, 15));
  limits.clear();
  RemoveRecord();
  EXPECT_EQ(Login(kEmail, kPassword, Quick::kYes), 0);
  EXPECT_THAT(limits, ElementsAre(15, 15));
}

TEST_F(PasswordLoginTest, HostileCredentialsStaySingleValues) {
  EXPECT_EQ(Login("a&serial_no=x\r\nX-Evil: 1", "b&c"), 0);
  const Request request = server_.OnlyRequest(kPasswordLoginPath);
  EXPECT_THAT(request.body,
              HasSubstr("&email=a%26serial_no%3Dx%0D%0AX-Evil%3A%201&passwd=b%26c&serial_no="));
  EXPECT_EQ(request.CountHeaders("X-Evil"), 0U);
}

// --- what does not undo a login -------------------------------------------------------------

TEST_F(PasswordLoginTest, WithTheReportOffNoJobIsInstalled) {
  test_files::Write("/etc/kivoinfo.conf", "zomi_disable_report=\"yes\"\n");
  ExpectSuccess();
  EXPECT_EQ(platform().call_count("ConfigManager::Save"), 0U);
  EXPECT_THAT(Log(), ElementsAre(kWelcome));
}

TEST_F(PasswordLoginTest, AJobThatCannotBeInstalledIsLogged) {
  platform().FailNext("ConfigManager::Save");
  ExpectSuccess();
  EXPECT_THAT(Log(), ElementsAre("zomi_account_login Failed to add crontab for zomi", kWelcome));
}

TEST_F(PasswordLoginTest, AnEventThatCannotBeWrittenIsIgnored) {
  platform().FailNext("KIVOLogSet1");
  ExpectSuccess();
  EXPECT_THAT(Log(), ElementsAre(kWelcome));
}

TEST_F(PasswordLoginTest, AProfileThatCannotBeHadDoesNotMatter) {
  server_.Answer(kQueryPath, 500, "");
  ExpectSuccess();
  EXPECT_THAT(ReadRecord(), HasSubstr("hs_auth_key=\"the key\"\n"));
  EXPECT_THAT(platform().plugin_runs, ElementsAre(PluginRun{"zomi", "zomi/login", 5}));
}

TEST_F(PasswordLoginTest, PlugInsThatCannotBeToldAreLogged) {
  platform().FailNext("KLIBPluginAction");
  ExpectSuccess();
  EXPECT_THAT(Log(), ElementsAre(kWelcome, "zomi_account_login KLIBPluginAction failed, action=5"));
}

// --- what fails before anything is sent -----------------------------------------------------

TEST_F(PasswordLoginTest, EmptyCredentialsAreWrongParameters) {
  for (const auto& [email, password] :
       {std::pair("", "p"), std::pair("e", ""), std::pair("", "")}) {
    SetLastErrorCode(77);
    EXPECT_EQ(Login(email, password), -1);
    EXPECT_EQ(LastErrorCode(), kWrongParameters);
  }
  EXPECT_THAT(Log(),
              ElementsAre("zomi_account_login Bad Parameters", "zomi_account_login Bad Parameters",
                          "zomi_account_login Bad Parameters"));
  EXPECT_THAT(platform().all_calls(), IsEmpty());
}

struct LocalFailure {
  const char* name;
  void (*cause)(fake_hos::Platform&);
  std::uint32_t code;
  std::vector<std::string> log;
};

void PrintTo(const LocalFailure& failure, std::ostream* stream) { *stream << failure.name; }

class LoginLocalFailureTest : public PasswordLoginTest,
                              public testing::WithParamInterface<LocalFailure> {};

TEST_P(LoginLocalFailureTest, EndsTheLogin) {
  GetParam().cause(platform());
  ExpectFailure(GetParam().code);
  std::vector<std::string> expected;
  for (const std::string& line : GetParam().log) expected.push_back("zomi_account_login " + line);
  EXPECT_EQ(Log(), expected);
  EXPECT_THAT(server_.requests(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(
    All, LoginLocalFailureTest,
    testing::Values(
        LocalFailure{"PlugIns",
                     [](fake_hos::Platform& fake) { fake.FailNext("KLIBPluginSDKInit"); },
                     6,
                     {"KLIBPluginSDKInit failed"}},
        LocalFailure{"ServerConfig",
                     [](fake_hos::Platform&) {
                       SetLastErrorCode(9);
                       ServerConfigFails() = true;
                     },
                     23,
                     {"KIVOZOMIServerConfigGet, code=9"}},
        LocalFailure{"SerialNumber",
                     [](fake_hos::Platform& fake) { fake.FailNext("KLIBGetSerialNumber"); },
                     8,
                     {"Failed to get serial number, err=[0x0900 fake_hos:1]"}},
        LocalFailure{"MacAddress",
                     [](fake_hos::Platform& fake) { fake.device.mac_address.reset(); },
                     20,
                     {"Failed to get mac address"}},
        LocalFailure{"ApiKeyNetwork",
                     [](fake_hos::Platform& fake) { fake.FailNext("KIVOCloudServiceGetApiKey"); },
                     15,
                     {"Failed to get apikey"}},
        LocalFailure{"ApiKeyOther",
                     [](fake_hos::Platform& fake) {
                       fake.cloud.next_api_key.reset();
                       fake.cloud.failure_code = 7;
                     },
                     24,
                     {"Failed to get apikey"}},
        LocalFailure{"ApiKeyNoError",
                     [](fake_hos::Platform& fake) {
                       fake.cloud.next_api_key.reset();
                       fake.cloud.failure_code = 0;
                     },
                     0,
                     {"Failed to get apikey"}},
        LocalFailure{"FormMemory",
                     [](fake_hos::Platform& fake) { fake.FailNext("KLIBCSzHashAlloc"); },
                     6,
                     {"Failed to alloc https request, err=[0x0900 fake_hos:1]"}},
        LocalFailure{"FormValue",
                     [](fake_hos::Platform& fake) { fake.FailCall("KLIBCSzHashSetValue", 6); },
                     6,
                     {"Failed to alloc https request, err=[0x0900 fake_hos:1]"}}),
    [](const auto& test) { return test.param.name; });

TEST_F(PasswordLoginTest, AsksForTheApiKeyThatMayBeRegistered) {
  ExpectSuccess();
  EXPECT_THAT(platform().calls("KIVOCloudServiceGetApiKey"),
              ElementsAre(Call{"KIVOCloudServiceGetApiKey", {"1"}}));
  EXPECT_THAT(platform().calls("KIVOHsinfoCloudServiceGetMacAddress"),
              ElementsAre(Call{"KIVOHsinfoCloudServiceGetMacAddress", {"24"}}));
}

// --- answers that are none ------------------------------------------------------------------

struct BadTransfer {
  std::string name;
  Response response;
};

void PrintTo(const BadTransfer& transfer, std::ostream* stream) { *stream << transfer.name; }

class BadLoginTransferTest : public PasswordLoginTest,
                             public testing::WithParamInterface<BadTransfer> {};

TEST_P(BadLoginTransferTest, IsARequestNotSent) {
  server_.Answer(kPasswordLoginPath, GetParam().response);
  ExpectFailure(kRequestNotSent);
  EXPECT_EQ(Log().back(), "zomi_account_login Failed to send https request. err=[0x0000 :0]");
}

INSTANTIATE_TEST_SUITE_P(
    All, BadLoginTransferTest,
    testing::Values(
        BadTransfer{"Status500", {.status = 500, .body = kGood}},
        BadTransfer{"Status401", {.status = 401, .body = kGood}},
        BadTransfer{"EmptyBody", {.body = ""}},
        BadTransfer{"Dropped", {.fault = {.delivery = Delivery::kDrop}}},
        BadTransfer{"Truncated", {.body = kGood, .fault = {.delivery = Delivery::kTruncate}}},
        BadTransfer{"Endless", {.body = kGood, .fault = {.delivery = Delivery::kEndless}}}),
    [](const auto& test) { return test.param.name; });

TEST_F(PasswordLoginTest, AServerThatIsNotTheVendorsGetsNoPassword) {
  server_.Show({.certificate = devcloud::CertificateKind::kUnknownAuthority});
  ExpectFailure(kRequestNotSent);
  EXPECT_THAT(server_.requests(), IsEmpty());
}

class LoginNoJsonTest : public PasswordLoginTest, public testing::WithParamInterface<NamedText> {};

TEST_P(LoginNoJsonTest, IsWrongJson) {
  AnswerLogin("x" + GetParam().text);  // an empty body is no answer at all
  ExpectFailure(kWrongJsonFormat);
  EXPECT_THAT(Log(), ElementsAre(StartsWith("zomi_account_login Failed to parse json: x")));
}

INSTANTIATE_TEST_SUITE_P(All, LoginNoJsonTest, testing::ValuesIn(session::TextsThatAreNoJson()),
                         session::NameOf);

class LoginNoCodeTest : public PasswordLoginTest, public testing::WithParamInterface<NamedText> {};

TEST_P(LoginNoCodeTest, IsABadResponse) {
  AnswerLogin(GetParam().text);
  ExpectFailure(kBadResponse);
  EXPECT_THAT(Log(), ElementsAre("zomi_account_login bad response, no code"));
}

INSTANTIATE_TEST_SUITE_P(Shapes, LoginNoCodeTest, testing::ValuesIn(session::JsonThatIsNoObject()),
                         session::NameOf);
INSTANTIATE_TEST_SUITE_P(Objects, LoginNoCodeTest,
                         testing::ValuesIn(std::vector<NamedText>{
                             {"Empty", "{}"},
                             {"OnlyTheIdentity", R"({"id":"1","auth_key":"k"})"},
                             {"CodeObject", R"({"code":{},"id":"1","auth_key":"k"})"},
                             {"CodeList", R"({"code":["good"],"id":"1","auth_key":"k"})"},
                         }),
                         session::NameOf);

// --- refusals -------------------------------------------------------------------------------

struct Refusal {
  std::string word;
  std::uint32_t code;
};

void PrintTo(const Refusal& refusal, std::ostream* stream) { *stream << refusal.word; }

class LoginRefusalTest : public PasswordLoginTest, public testing::WithParamInterface<Refusal> {};

TEST_P(LoginRefusalTest, FailsWithItsCode) {
  const std::string answer = R"({"code":")" + GetParam().word + R"(","id":"1","auth_key":"k"})";
  AnswerLogin(answer);
  ExpectFailure(GetParam().code);
  EXPECT_THAT(Log(),
              ElementsAre("zomi_account_login Failed to login anna@example.org, resp=" + answer));
  EXPECT_EQ(server_.requests().size(), 1U);
}

INSTANTIATE_TEST_SUITE_P(All, LoginRefusalTest,
                         testing::Values(Refusal{"badparam", 1}, Refusal{"badauth", 14},
                                         Refusal{"badsys", 6}, Refusal{"badnetwork", 15},
                                         Refusal{"account_inused", 16},
                                         Refusal{"serial_exceed_max_account_register", 17},
                                         Refusal{"account_unverified", 18},
                                         Refusal{"account_not_found", 25},
                                         Refusal{"unheard_of", 24}, Refusal{"", 24}),
                         [](const auto& test) { return "Word_" + test.param.word; });

TEST_F(PasswordLoginTest, NullAsTheVerdictIsAnUnknownWord) {
  AnswerLogin(R"({"code":null,"id":"1","auth_key":"k"})");
  ExpectFailure(kGenericError);
}

TEST_F(PasswordLoginTest, ARefusalWithStatus400IsReadToo) {
  server_.Answer(kPasswordLoginPath, 400, R"({"code":"badauth"})");
  ExpectFailure(kAuthFailed);
}

class LoginIncompleteTest : public PasswordLoginTest,
                            public testing::WithParamInterface<NamedText> {};

TEST_P(LoginIncompleteTest, IsABadResponse) {
  AnswerLogin(GetParam().text);
  ExpectFailure(kBadResponse);
  EXPECT_THAT(Log(), ElementsAre("zomi_account_login bad response, no id or auth_key"))
      << "the answer may hold the key";
}

INSTANTIATE_TEST_SUITE_P(All, LoginIncompleteTest,
                         testing::ValuesIn(std::vector<NamedText>{
                             {"NoId", R"({"code":"good","auth_key":"k"})"},
                             {"NoAuthKey", R"({"code":"good","id":"1"})"},
                             {"IdNull", R"({"code":"good","id":null,"auth_key":"k"})"},
                             {"IdEmpty", R"({"code":"good","id":"","auth_key":"k"})"},
                             {"AuthKeyNull", R"({"code":"good","id":"1","auth_key":null})"},
                             {"AuthKeyEmpty", R"({"code":"good","id":"1","auth_key":""})"},
                             {"IdList", R"({"code":"good","id":["1"],"auth_key":"k"})"},
                             {"AuthKeyObject", R"({"code":"good","id":"1","auth_key":{}})"},
                         }),
                         session::NameOf);

class LoginHostileTest : public PasswordLoginTest, public testing::WithParamInterface<NamedText> {};

TEST_P(LoginHostileTest, IsNotWritten) {
  AnswerLogin(GetParam().text);
  ExpectFailure(kAccountNotWritten);
  EXPECT_THAT(Log(), Contains(StartsWith("zomi_account_login Failed to set user: System error "
                                         "[code=19]\n")));
}

INSTANTIATE_TEST_SUITE_P(
    All, LoginHostileTest,
    testing::ValuesIn(std::vector<NamedText>{
        {"IdWithLineBreak", R"({"code":"good","id":"1\nevil=\"1","auth_key":"k"})"},
        {"AuthKeyWithLineBreak", R"({"code":"good","id":"1","auth_key":"k\nzomiID=\"evil"})"},
        {"AuthKeyWithCarriageReturn", R"({"code":"good","id":"1","auth_key":"k\r\nx"})"},
        {"AuthKeyWithNul", R"({"code":"good","id":"1","auth_key":"k\u0000x"})"},
    }),
    session::NameOf);

TEST_F(PasswordLoginTest, ARecordThatCannotBeWrittenFailsTheLogin) {
  for (const int n : {1, 2}) {
    platform().FailCall("KLIBCFileSetKeyValue", n);
    ExpectFailure(kAccountNotWritten);
  }
}

TEST_F(PasswordLoginTest, AFirstRecordThatCannotBeWrittenIsNotLeftHalf) {
  platform().FailCall("KLIBCFileSetKeyValue", 2);
  EXPECT_EQ(Login(), -1);
  EXPECT_FALSE(HasRecord());
}

// --- API keys -------------------------------------------------------------------------------

class ApiKeyTest : public PasswordLoginTest {
 protected:
  ApiKeyTest() {
    platform().cloud.stored_api_key = "old-key";
    platform().cloud.next_api_key = "new-key";
  }

  static constexpr char kNotFound[] = R"({"code":"apikey_not_found"})";
  static constexpr char kRegister[] = "zomi_account_login ApiKey not found. Register new one.";
};

TEST_F(ApiKeyTest, AnUnknownOneIsRegisteredAnewAndTheLoginTriedOnceMore) {
  AnswerLogins(kNotFound, kGood);
  ExpectSuccess();
  std::vector<std::string> bodies;
  for (const Request& request : server_.requests(kPasswordLoginPath)) {
    bodies.push_back(request.body);
  }
  EXPECT_THAT(bodies, ElementsAre(Form("old-key"), Form("new-key")));
  EXPECT_EQ(platform().call_count("KIVOCloudServiceRegisterApiKey"), 1U);
  EXPECT_THAT(Log(), ElementsAre(kRegister, kWelcome));
}

TEST_F(ApiKeyTest, UnknownTwiceIsARefusal) {
  AnswerLogin(kNotFound);
  ExpectFailure(kApiKeyNotFound);
  EXPECT_EQ(server_.requests(kPasswordLoginPath).size(), 2U);
  EXPECT_EQ(platform().call_count("KIVOCloudServiceRegisterApiKey"), 1U);
  EXPECT_THAT(Log(), ElementsAre(kRegister,
                                 "zomi_account_login Failed to login anna@example.org, "
                                 "resp={\"code\":\"apikey_not_found\"}"));
}

TEST_F(ApiKeyTest, OneThatCannotBeRegisteredFailsTheLogin) {
  AnswerLogin(kNotFound);
  platform().cloud.next_api_key.reset();
  ExpectFailure(kNetworkFailed);
  EXPECT_EQ(server_.requests().size(), 1U);
  EXPECT_THAT(Log(),
              ElementsAre(kRegister, "zomi_account_login KIVOCloudServiceRegisterApiKey failed"));
}

TEST_F(ApiKeyTest, OneThatDoesNotFitTheFormFailsTheLogin) {
  AnswerLogin(kNotFound);
  platform().FailCall("KLIBCSzHashSetValue", 7);
  ExpectFailure(kSystemError);
  EXPECT_EQ(server_.requests().size(), 1U);
}

TEST_F(ApiKeyTest, TheSecondAnswerIsJudgedLikeTheFirst) {
  AnswerLogins(kNotFound, "<html>");
  ExpectFailure(kWrongJsonFormat);
  AnswerLogins(kNotFound, "{}");
  ExpectFailure(kBadResponse);
  AnswerLogins(kNotFound, R"({"code":"badauth"})");
  ExpectFailure(kAuthFailed);
  AnswerLogins(kNotFound, R"({"code":"good"})");
  ExpectFailure(kBadResponse);
  server_.AnswerInTurn(kPasswordLoginPath,
                       {Response{.body = kNotFound}, Response{.status = 500, .body = "x"}});
  ExpectFailure(kRequestNotSent);
}

TEST_F(ApiKeyTest, AnExpiredOneIsDropped) {
  AnswerLogin(R"({"code":"apikey_expired"})");
  ExpectFailure(kApiKeyExpired);
  EXPECT_THAT(platform().calls("KIVOCloudServiceActionHandler"),
              ElementsAre(Call{"KIVOCloudServiceActionHandler", {"2"}}));
  EXPECT_EQ(platform().cloud.stored_api_key, std::nullopt);
  EXPECT_EQ(server_.requests().size(), 1U);
  EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(ApiKeyTest, AnExpiredOneThatCannotBeDroppedIsExpiredAllTheSame) {
  AnswerLogin(R"({"code":"apikey_expired"})");
  platform().FailNext("KIVOCloudServiceActionHandler");
  ExpectFailure(kApiKeyExpired);
}

TEST_F(ApiKeyTest, ANewOneMayHaveExpiredToo) {
  AnswerLogins(kNotFound, R"({"code":"apikey_expired"})");
  ExpectFailure(kApiKeyExpired);
  EXPECT_EQ(platform().call_count("KIVOCloudServiceActionHandler"), 1U);
}

// --- every call -----------------------------------------------------------------------------

TEST_F(ApiKeyTest, EveryPlatformCallMayFail) {
  hooks().usleep = [](useconds_t) {};
  int result = 0;
  FailEachCall(
      [&] {
        AnswerLogins(kNotFound, kGood);
        WriteRecord(kOldRecord);
        result_ = Json::Value();
      },
      [&] { result = Login(); },
      [&] {
        if (result == 0) {
          EXPECT_THAT(ReadRecord(), HasSubstr("zomiIDSerial=\"4711\"\nhs_auth_key=\"the key\"\n"));
          return;
        }
        EXPECT_EQ(result, -1);
        const std::uint32_t code = LastErrorCode();
        EXPECT_TRUE((code >= 1 && code <= 8) || (code >= 14 && code <= 27)) << code;
        EXPECT_EQ(ReadRecord(), kOldRecord);
        EXPECT_TRUE(result_.isNull());
        EXPECT_THAT(platform().plugin_runs, IsEmpty());
      });
}

}  // namespace
}  // namespace nodelink
