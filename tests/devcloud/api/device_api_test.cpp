#include "devcloud/api/device_api.h"

#include "tests/devcloud/cloud_fixture.h"

namespace devcloud_test {
namespace {

using testing::IsSupersetOf;

constexpr char kQuery[] = "/device/api/user/query";
constexpr char kReport[] = "/device/api/report";
constexpr char kLogin[] = "/device/api/password_login";
constexpr char kRegister[] = "/cloudservice/api/v1/apikey/register";

constexpr std::array kProfileMembers{"email",
                                     "full_name",
                                     "country",
                                     "timezone",
                                     "notify_language",
                                     "activated",
                                     "disabled",
                                     "enews",
                                     "enews_local_promotion",
                                     "critical_release",
                                     "critical_version_list",
                                     "realname_validation_pass"};

Pairs Without(Pairs form, const std::string& name) {
  std::erase_if(form, [&name](const auto& pair) { return pair.first == name; });
  return form;
}

Pairs With(const Pairs& form, const std::string& name, const std::string& value) {
  Pairs changed = form;
  for (auto& [key, old] : changed) {
    if (key == name) old = value;
  }
  return changed;
}

TEST_F(CloudTest, QueryGivesTheProfile) {
  account_.critical_version_list = {{"a", true}, {"b", false}};
  SetState("good");
  const ClientAnswer answer = PostProven(kQuery, LinkForm());
  EXPECT_EQ(answer.status, 200);
  const Json::Value json = Parse(answer);
  EXPECT_EQ(json["code"].asString(), "good");
  EXPECT_EQ(json["email"].asString(), kEmail);
  EXPECT_TRUE(json["critical_version_list"]["a"].asBool());
  EXPECT_THAT(json.getMemberNames(), IsSupersetOf(kProfileMembers.begin(), kProfileMembers.end()));
  EXPECT_FALSE(json.isMember("report_cron_timestring"));
}

TEST_F(CloudTest, QueryGivesTheScheduleOfTheDeviceOrElseOfTheAccount) {
  account_.report_cron_timestring = "0 1 * * *";
  SetState("good");
  EXPECT_EQ(Parse(PostProven(kQuery, LinkForm()))["report_cron_timestring"], "0 1 * * *");
  cloud_.store().PutDevice({.serial = kSerial, .mac = kMac, .report_cron_timestring = "~ ~ * * *"});
  EXPECT_EQ(Parse(PostProven(kQuery, LinkForm()))["report_cron_timestring"], "~ ~ * * *");
}

class StateTest : public CloudTest, public testing::WithParamInterface<const char*> {};

TEST_P(StateTest, IsTheWordOfTheAnswer) {
  SetState(GetParam());
  const bool success = devcloud::IsSuccessWord(GetParam());
  const ClientAnswer query = PostProven(kQuery, LinkForm());
  EXPECT_EQ(query.status, success ? 200 : 400);
  EXPECT_EQ(Parse(query)["code"].asString(), GetParam());
  EXPECT_EQ(Parse(query).isMember("email"), std::string(GetParam()) != "badauth");
  Pairs report = LinkForm();
  report.insert(report.end(), {{"timezone", "Europe/Zurich"}, {"hs_info", ""}});
  EXPECT_EQ(Parse(PostProven(kReport, report))["code"].asString(), GetParam());
}

INSTANTIATE_TEST_SUITE_P(Words, StateTest,
                         testing::Values("good", "badparam", "badauth", "badsys", "badnetwork",
                                         "account_inused", "serial_exceed_max_account_register",
                                         "account_unverified", "account_userid",
                                         "account_not_found", "apikey_not_found", "apikey_expired",
                                         "something_new"));

TEST_F(CloudTest, QueryRefusesCredentialsThatDoNotFit) {
  for (const char* name : {"id", "auth_key", "serial_no"}) {
    EXPECT_EQ(Parse(PostProven(kQuery, With(LinkForm(), name, "x")))["code"], "badauth") << name;
    EXPECT_EQ(Parse(PostProven(kQuery, Without(LinkForm(), name)))["code"], "badparam") << name;
  }
  EXPECT_TRUE(cloud_.store().Unlink(kSerial));
  EXPECT_EQ(Parse(PostProven(kQuery, LinkForm()))["code"], "badauth");
}

TEST_F(CloudTest, TheDeviceTokenIsRecomputed) {
  Pairs form = LinkForm();
  form.insert(form.begin(), {{"hs_sn", kSerial}, {"hs_token", std::string(32, '0')}});
  EXPECT_EQ(Parse(PostForm(kQuery, form))["code"], "badauth");
  form[1].second = devcloud::DeviceToken(kSerial, "", "");
  EXPECT_EQ(Parse(PostForm(kQuery, form))["code"], "good");
  form.insert(form.begin() + 2, {{"zomiID", "a"}, {"zomiPW", "b"}});
  EXPECT_EQ(Parse(PostForm(kQuery, form))["code"], "badauth");
  form[1].second = devcloud::DeviceToken(kSerial, "a", "b");
  EXPECT_EQ(Parse(PostForm(kQuery, form))["code"], "good");
  EXPECT_EQ(Parse(PostForm(kQuery, Without(form, "hs_token")))["code"], "badparam");
  EXPECT_EQ(Parse(PostForm(kQuery, Without(form, "hs_sn")))["code"], "badparam");
}

TEST_F(CloudTest, ASecondSerialNumberDoesNotMatter) {
  Pairs form = LinkForm();
  form.emplace_back("hs_sn", "NL2");
  EXPECT_EQ(Parse(PostProven(kQuery, form))["code"], "good");
}

TEST_F(CloudTest, OnlyFormsAreForms) {
  const std::string body = Encode(LinkForm());
  for (const char* type : {"Content-Type: text/plain", "Content-Type:"}) {
    const ClientAnswer answer = client_.Send({.url = Url(kQuery), .body = body, .headers = {type}});
    EXPECT_EQ(Parse(answer)["code"], "badparam");
  }
  EXPECT_EQ(Parse(client_.Send({.url = Url(kQuery), .body = "hs_sn=%zz"}))["code"], "badparam");
}

TEST_F(CloudTest, ReportIsNoted) {
  account_.report_cron_timestring = "5 ~ * * *";
  SetState("good");
  Pairs form = LinkForm();
  form.insert(form.end(), {{"timezone", "Europe/Zurich"}, {"hs_info", ""}});
  const Json::Value json = Parse(PostProven(kReport, form));
  EXPECT_EQ(json["code"], "good");
  EXPECT_EQ(json["report_cron_timestring"], "5 ~ * * *");
  const auto device = cloud_.store().FindDevice(kSerial);
  EXPECT_EQ(device->reported_at, now_);
  EXPECT_EQ(device->reported_timezone, "Europe/Zurich");
  EXPECT_EQ(device->schedule_given, "5 ~ * * *");
  EXPECT_EQ(Parse(PostProven(kReport, Without(form, "hs_info")))["code"], "badparam");
  EXPECT_EQ(Parse(PostProven(kReport, With(form, "auth_key", "x")))["code"], "badauth");
}

Pairs LoginForm() {
  return {{"type", "acnt_pw_apikey"}, {"email", kEmail},  {"passwd", kPassword},
          {"serial_no", kSerial},     {"api_key", "key"}, {"mac", kMac}};
}

TEST_F(CloudTest, PasswordLoginLinksTheDevice) {
  EXPECT_TRUE(cloud_.store().Unlink(kSerial));
  const ClientAnswer answer = PostProven(kLogin, LoginForm());
  EXPECT_EQ(answer.status, 200);
  const Json::Value json = Parse(answer);
  EXPECT_EQ(json["code"], "good");
  EXPECT_EQ(json["id"].asString(), account_.user_id);
  EXPECT_EQ(json["auth_key"].asString(), cloud_.store().FindLink(kSerial)->auth_key);
}

TEST_F(CloudTest, PasswordLoginRefusals) {
  const auto word = [this](const std::string& name, const std::string& value) {
    return Parse(PostProven(kLogin, With(LoginForm(), name, value)))["code"].asString();
  };
  EXPECT_EQ(word("type", "other"), "badparam");
  EXPECT_EQ(word("email", "nobody@example.org"), "account_not_found");
  EXPECT_EQ(word("passwd", "wrong"), "badauth");
  EXPECT_EQ(word("api_key", "other"), "apikey_not_found");
  EXPECT_EQ(word("mac", "02:00:5e:10:00:02"), "apikey_not_found");
  EXPECT_EQ(word("serial_no", "NL2"), "badauth");
  EXPECT_EQ(Parse(PostProven(kLogin, Without(LoginForm(), "mac")))["code"], "badparam");
  SetState("account_unverified");
  EXPECT_EQ(word("email", kEmail), "account_unverified");
}

TEST_F(CloudTest, PasswordLoginSeesTheDevicesKeyAndLimit) {
  devcloud::Device device{.serial = kSerial, .mac = kMac, .api_key = "key"};
  device.api_key_expired = true;
  cloud_.store().PutDevice(device);
  EXPECT_EQ(Parse(PostProven(kLogin, LoginForm()))["code"], "apikey_expired");
  device.api_key.reset();
  cloud_.store().PutDevice(device);
  EXPECT_EQ(Parse(PostProven(kLogin, With(LoginForm(), "api_key", "")))["code"],
            "apikey_not_found");
  devcloud::Account bob{.email = "bob@example.org"};
  EXPECT_TRUE(cloud_.store().AddAccount(bob, kPassword));
  cloud_.store().PutDevice({.serial = kSerial, .mac = kMac, .api_key = "key", .max_accounts = 1});
  EXPECT_EQ(Parse(PostProven(kLogin, With(LoginForm(), "email", bob.email)))["code"],
            "serial_exceed_max_account_register");
}

TEST_F(CloudTest, ApiKeysAreRegistered) {
  const Json::Value json = Parse(PostForm(kRegister, {{"serial_no", "NL2"}, {"mac", kMac}}));
  EXPECT_EQ(json["api_key"].asString(), cloud_.store().FindDevice("NL2")->api_key);
  const std::string old = json["api_key"].asString();
  EXPECT_NE(Parse(PostForm(kRegister, {{"serial_no", "NL2"}, {"mac", kMac}}))["api_key"], old);
  EXPECT_EQ(PostForm(kRegister, {{"serial_no", "NL2"}}).status, 400);
  EXPECT_EQ(PostForm(kRegister, {{"serial_no", " "}, {"mac", kMac}}).status, 400);
}

}  // namespace
}  // namespace devcloud_test
