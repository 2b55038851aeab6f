#include "devcloud/console/console.h"

#include <regex>
#include <set>

#include "devcloud/console/page.h"
#include "tests/devcloud/cloud_fixture.h"

namespace devcloud_test {
namespace {

using testing::HasSubstr;
using testing::IsEmpty;
using testing::IsSupersetOf;
using testing::Not;
using testing::SizeIs;

constexpr std::array kPages{"accounts", "devices", "tokens", "requests", "faults"};

class ConsoleTest : public CloudTest {
 protected:
  ClientAnswer Open(const std::string& page, std::vector<std::string> headers = {}) {
    return browser_.Send({.url = UrlOf(page), .headers = std::move(headers)});
  }

  std::string Body(const std::string& page) { return Open(page).body; }

  ClientAnswer SendForm(const std::string& page, const Pairs& form,
                        std::vector<std::string> headers = {}) {
    return browser_.Send({.url = UrlOf(page), .body = Encode(form), .headers = std::move(headers)});
  }

  // As the page's own form does.
  ClientAnswer Submit(const std::string& page, Pairs form) {
    form.emplace_back("csrf", Csrf());
    return SendForm(page, form);
  }

  std::string Csrf() {
    const std::string body = Body("accounts");
    std::smatch match;
    std::regex_search(body, match, std::regex("name=\"csrf\" value=\"([^\"]*)\""));
    return match[1];
  }

  std::string UrlOf(const std::string& page) { return cloud_.control().Url() + "/console/" + page; }

  // What switches the faults page has, by the value that they send.
  std::vector<std::string> Switches() {
    const std::string body = Body("faults");
    const std::regex pattern("role=\"switch\"[^>]* value=\"([^\"]*)\"");
    std::vector<std::string> values;
    for (std::sregex_iterator match(body.begin(), body.end(), pattern), end; match != end;
         ++match) {
      values.push_back((*match)[1]);
    }
    return values;
  }

  HttpClient browser_;
};

TEST_F(ConsoleTest, PagesAreForThisBrowserWindowOnly) {
  for (const char* page : kPages) {
    const ClientAnswer answer = Open(page);
    EXPECT_EQ(answer.status, 200);
    EXPECT_EQ(answer.Header("Content-Type"), "text/html; charset=utf-8");
    EXPECT_EQ(answer.Header("Cache-Control"), "no-store");
    EXPECT_EQ(answer.Header("X-Frame-Options"), "DENY");
    EXPECT_EQ(answer.Header("X-Content-Type-Options"), "nosniff");
    EXPECT_EQ(answer.Header("Referrer-Policy"), "same-origin");
    EXPECT_THAT(answer.head, HasSubstr("default-src 'none'"));
    EXPECT_THAT(answer.head, HasSubstr("form-action 'self'"));
  }
}

TEST_F(ConsoleTest, TheEntranceLeadsToTheFirstPage) {
  for (const char* entrance : {"/", "/console"}) {
    const ClientAnswer answer = browser_.Send({.url = cloud_.control().Url() + entrance});
    EXPECT_EQ(answer.status, 303);
    EXPECT_EQ(answer.Header("Location"), "/console/accounts");
  }
}

TEST_F(ConsoleTest, WhatComesFromOutsideIsEscaped) {
  const std::string hostile = "\"><script>alert(1)</script>'&";
  account_.full_name = account_.state = hostile;
  account_.report_cron_timestring = hostile;
  EXPECT_TRUE(cloud_.store().UpdateAccount(account_));
  cloud_.store().PutDevice({.serial = "A" + hostile,
                            .mac = hostile,
                            .report_cron_timestring = hostile,
                            .reported_timezone = hostile,
                            .schedule_given = hostile});
  (void)cloud_.tokens().StartFamily({hostile, account_.user_id, hostile}, "");
  cloud_.faults().Add({.method = hostile, .path = "/" + hostile});
  (void)client_.Send({.url = Url("/<script>?<script>=<script>"),
                      .body = "<script>=<script>",
                      .headers = {"User-Agent: " + hostile}});
  (void)PostForm("/x", {{hostile, hostile}, {"email", hostile}});
  for (const char* page : kPages) {
    const std::string body = Body(page);
    EXPECT_THAT(body, HasSubstr("&lt;script")) << page;
    EXPECT_THAT(body, Not(HasSubstr("<script"))) << page;
    EXPECT_THAT(body, Not(HasSubstr("'&<"))) << page;
  }
}

TEST_F(ConsoleTest, SecretsAreNotShownInFull) {
  const std::string code(43, 'c');
  const std::string bearer(43, 'b');
  (void)PostProven("/device/api/password_login", {{"email", kEmail}, {"password", kPassword}});
  (void)PostProven("/device/api/user/query", LinkForm());
  (void)client_.Send({.url = Url("/oauth2/v1/login_callback?state=secret-state&code=" + code),
                      .headers = {"Authorization: Bearer " + bearer, "Cookie: a=secret-cookie"}});
  cloud_.faults().Add({.path = "/x", .status = 200, .body = R"({"a":[{"access_token":"tiny"}]})"});
  (void)PostForm("/x", {});
  const std::string body = Body("requests");
  EXPECT_THAT(body, HasSubstr("… (43 bytes)"));
  for (const std::string& secret :
       {std::string(kPassword), std::string("correct"), link_.auth_key, code, bearer,
        devcloud::DeviceToken(kSerial, "", ""), std::string("secret-"), std::string("tiny")}) {
    EXPECT_THAT(body, Not(HasSubstr(secret)));
  }
  EXPECT_THAT(Body("devices"), Not(HasSubstr(link_.auth_key)));
}

TEST_F(ConsoleTest, LongValuesAreCut) {
  account_.full_name = std::string(1000, 'x');
  EXPECT_TRUE(cloud_.store().UpdateAccount(account_));
  EXPECT_THAT(Body("accounts"), HasSubstr(">" + std::string(80, 'x') + "…<"));
  std::string many;
  for (int i = 0; i < 1000; ++i) many += "a" + std::to_string(i) + "=1&";
  (void)client_.Send({.url = Url("/x"), .body = many});
  EXPECT_THAT(Body("requests"), HasSubstr("… and more"));
  EXPECT_THAT(Body("requests"), Not(HasSubstr("a100")));
}

TEST_F(ConsoleTest, FormsNeedTheToken) {
  const Pairs form{{"action", "clear"}};
  EXPECT_EQ(SendForm("requests", form).status, 403);
  for (const char* token : {"", "x"}) {
    for (const char* page : kPages) {
      EXPECT_EQ(SendForm(page, {{"action", "clear"}, {"csrf", token}}).status, 403) << page;
    }
  }
  devcloud::Cloud other({});
  EXPECT_EQ(browser_
                .Send({.url = other.control().Url() + "/console/requests",
                       .body = Encode({{"action", "clear"}, {"csrf", Csrf()}})})
                .status,
            403);
  EXPECT_EQ(Submit("requests", form).status, 303);
}

TEST_F(ConsoleTest, WebPagesOfStrangersAreKeptOut) {
  const Pairs form{{"action", "clear"}, {"csrf", Csrf()}};
  for (const char* header :
       {"Host: evil.example", "Host: evil.example:8079", "Host: 127.0.0.1.evil.example",
        "Origin: null", "Origin: https://evil.example", "Origin: http://127.0.0.1:1",
        "Sec-Fetch-Site: cross-site", "Sec-Fetch-Site: same-site"}) {
    EXPECT_EQ(SendForm("requests", form, {header}).status, 403) << header;
  }
  EXPECT_EQ(Open("accounts", {"Host: evil.example"}).status, 403);
  EXPECT_EQ(Open("accounts", {"Sec-Fetch-Site: cross-site", "Sec-Fetch-Mode: no-cors"}).status,
            403);
  EXPECT_EQ(Open("accounts", {"Sec-Fetch-Site: cross-site", "Sec-Fetch-Mode: navigate"}).status,
            200);
  EXPECT_EQ(SendForm("requests", form, {"Origin: " + cloud_.control().Url()}).status, 303);
}

// Four for each path that a device or its browser asks for, and for all of them.
std::vector<std::string> KnownSwitches() {
  std::vector<std::string> switches;
  for (const char* kind : {"error-", "lost-", "half-", "late-"}) {
    for (const char* path :
         {"/device/api/user/query", "/device/api/report", "/device/api/password_login",
          "/device/api/logout", "/cloudservice/api/v1/apikey/register",
          "/oauth2/api/v1/device/core/authkey/exchange",
          "/migration/api/v1/device/core/authorization_code/grant", "/oauth2/v1/authorize",
          "/oauth2/v1/token", "/oauth2/v1/end_session", "*"}) {
      switches.push_back(kind + std::string(path));
    }
  }
  return switches;
}

TEST_F(ConsoleTest, EachSwitchSetsAndClearsItsFault) {
  const std::vector<std::string> switches = Switches();
  EXPECT_THAT(switches, IsSupersetOf(KnownSwitches()));
  EXPECT_EQ(switches.size() % 4, 0U) << "each path has all four";
  std::set<std::string> rules;
  for (const std::string& value : switches) {
    const ClientAnswer on = Submit("faults", {{"action", "switch"}, {"on", value}});
    EXPECT_EQ(on.Header("Location"), "/console/faults#" + devcloud::PercentEncode(value));
    ASSERT_THAT(cloud_.faults().List(), SizeIs(1)) << value;
    devcloud::FaultRule rule = cloud_.faults().List().at(0);
    EXPECT_TRUE(value.ends_with("-" + rule.path)) << value;
    rule.id = 0;
    rules.insert(devcloud::ToCompactText(devcloud::ToJson(rule)));
    EXPECT_THAT(Body("faults"), HasSubstr("id=\"" + value + "\" aria-checked=\"true\""));
    EXPECT_EQ(Submit("faults", {{"action", "switch"}, {"off", value}}).status, 303);
    EXPECT_THAT(cloud_.faults().List(), IsEmpty()) << value;
  }
  EXPECT_THAT(rules, SizeIs(switches.size())) << "two switches do the same";
}

TEST_F(ConsoleTest, EachSwitchIsForAPathThatTheCloudServes) {
  for (const std::string& value : Switches()) {
    const std::string path = value.substr(value.find('-') + 1);
    EXPECT_TRUE(path == "*" || PostForm(path, {}).status != 404) << path;
  }
}

TEST_F(ConsoleTest, ASwitchLeavesOtherFaultsAlone) {
  cloud_.faults().Add({.path = "/device/api/report", .count = 1, .status = 500, .body = "fault"});
  const Pairs on{{"action", "switch"}, {"on", "error-/device/api/report"}};
  EXPECT_EQ(Submit("faults", on).status, 303);
  EXPECT_EQ(Submit("faults", on).status, 303) << "asked for twice, as from two windows";
  EXPECT_THAT(cloud_.faults().List(), SizeIs(2));
  EXPECT_EQ(Submit("faults", {{"action", "remove"}, {"id", "1"}}).status, 303);
  EXPECT_THAT(cloud_.faults().List(), SizeIs(1));
  EXPECT_EQ(Submit("faults", {{"action", "clear"}}).status, 303);
  EXPECT_THAT(cloud_.faults().List(), IsEmpty());
}

TEST_F(ConsoleTest, AccountsCanBeAddedAndTheirStateSet) {
  const Pairs account{{"action", "add"}, {"email", "ben@example.org"}, {"password", "pw"}};
  EXPECT_EQ(Submit("accounts", account).status, 303);
  const auto added = cloud_.store().FindAccountByEmail("ben@example.org");
  ASSERT_TRUE(added.has_value());
  EXPECT_TRUE(cloud_.store().PasswordFits(added->user_id, "pw"));
  const Pairs state{{"action", "set_state"}, {"account", added->user_id}, {"state", "badauth"}};
  EXPECT_EQ(Submit("accounts", state).Header("Location"),
            "/console/accounts#account-" + added->user_id);
  EXPECT_EQ(cloud_.store().FindAccount(added->user_id)->state, "badauth");
}

TEST_F(ConsoleTest, SchedulesAndLinksCanBeChanged) {
  Pairs schedule{{"action", "set_schedule"}, {"serial", kSerial}, {"schedule", "1 2 * * *"}};
  EXPECT_EQ(Submit("devices", schedule).status, 303);
  EXPECT_EQ(cloud_.store().FindDevice(kSerial)->report_cron_timestring, "1 2 * * *");
  EXPECT_THAT(Body("devices"), HasSubstr("value=\"1 2 * * *\""));
  schedule.back().second = "";
  EXPECT_EQ(Submit("devices", schedule).status, 303);
  EXPECT_EQ(cloud_.store().FindDevice(kSerial)->report_cron_timestring, std::nullopt);
  EXPECT_EQ(Submit("devices", {{"action", "unlink"}, {"serial", kSerial}}).status, 303);
  EXPECT_FALSE(cloud_.store().FindLink(kSerial).has_value());
}

TEST_F(ConsoleTest, TokensShowTheirState) {
  const auto family = cloud_.tokens().StartFamily({"client", account_.user_id, "sn:X"}, "");
  for (int i = 0; i < 2; ++i) {
    (void)cloud_.tokens().IssueToken(family, devcloud::TokenKind::kAccess, 10);
  }
  EXPECT_THAT(Body("tokens"), HasSubstr(kEmail));
  EXPECT_THAT(Body("tokens"), HasSubstr(">good<"));
  EXPECT_EQ(Submit("tokens", {{"action", "revoke_token"}, {"id", "1"}}).Header("Location"),
            "/console/tokens#token-1");
  EXPECT_THAT(Body("tokens"), HasSubstr(">revoked<"));
  EXPECT_THAT(Body("tokens"), Not(HasSubstr(">expired<")));
  now_ += 20;
  EXPECT_THAT(Body("tokens"), HasSubstr(">expired<"));
  EXPECT_EQ(Submit("tokens", {{"action", "revoke_family"}, {"id", "1"}}).status, 303);
  EXPECT_THAT(Body("tokens"), HasSubstr(">revoked with its sign-in<"));
}

TEST_F(ConsoleTest, WhatCannotBeDoneIsSaidOnThePage) {
  for (const auto& [page, form] : std::vector<std::pair<std::string, Pairs>>{
           {"accounts", {{"action", "add"}, {"email", kEmail}, {"password", "pw"}}},
           {"accounts", {{"action", "add"}, {"email", "ben@example.org"}}},
           {"accounts", {{"action", "set_state"}, {"account", "nobody"}, {"state", "good"}}},
           {"accounts", {{"action", "set_state"}, {"account", account_.user_id}}},
           {"accounts", {}},
           {"devices", {{"action", "unlink"}, {"serial", "nothing"}}},
           {"devices", {{"serial", kSerial}}},
           {"tokens", {{"action", "revoke_token"}, {"id", "7"}}},
           {"tokens", {{"action", "revoke_token"}, {"id", "7x"}}},
           {"tokens", {{"id", "1"}}},
           {"requests", {}},
           {"faults", {{"action", "switch"}, {"on", "error-/nowhere"}}},
           {"faults", {{"action", "remove"}}},
           {"faults", {}}}) {
    const ClientAnswer answer = Submit(page, form);
    EXPECT_EQ(answer.status, 400) << page << " " << Encode(form);
    EXPECT_THAT(answer.body, HasSubstr("role=\"alert\""));
  }
}

TEST(ConsoleTextTest, IsCutBetweenCharacters) {
  EXPECT_EQ(devcloud::console::Cut("abcd", 4), "abcd");
  EXPECT_EQ(devcloud::console::Cut("abcde", 4), "abcd…");
  EXPECT_EQ(devcloud::console::Cut("abcäö", 4), "abc…");
  EXPECT_EQ(devcloud::console::Cut("\x80\x80\x80\x80\x80", 4), "…");
}

TEST(ConsoleTextTest, TimesAreUtc) {
  EXPECT_EQ(devcloud::console::ToTimeText(0), "never");
  EXPECT_EQ(devcloud::console::ToTimeText(86400), "1970-01-02 00:00:00 UTC");
}

}  // namespace
}  // namespace devcloud_test
