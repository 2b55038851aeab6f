#include "devcloud/api/account_api.h"

#include "tests/devcloud/api/oauth_fixture.h"

namespace devcloud_test {
namespace {

TEST_F(OauthTest, AccessTokensGiveTheAuthKey) {
  const std::string token = GetTokens()["access_token"].asString();
  const Json::Value json = Parse(Exchange(token));
  EXPECT_EQ(json["user_id"].asString(), account_.user_id);
  EXPECT_EQ(json["auth_key"].asString(), link_.auth_key);
  EXPECT_EQ(Exchange("").status, 401);
  EXPECT_EQ(Exchange(token + "x").status, 401);
  const ClientAnswer with_body = client_.Send(
      {.url = Url(kExchange), .body = "x", .headers = {"Authorization: Bearer " + token}});
  EXPECT_EQ(with_body.status, 400);
  SetState("badauth");
  EXPECT_EQ(Exchange(token).status, 401);
}

TEST_F(OauthTest, ABrowserLoginLinksADeviceNeverSeenBefore) {
  EXPECT_TRUE(cloud_.store().RemoveDevice(kSerial));
  const Json::Value json = Parse(Exchange(GetTokens()["access_token"].asString()));
  EXPECT_EQ(json["auth_key"].asString(), cloud_.store().FindLink(kSerial)->auth_key);
  EXPECT_EQ(cloud_.store().FindDevice(kSerial)->mac, kMac);
}

TEST_F(OauthTest, AScopeWithoutDeviceGivesNoAuthKey) {
  const ClientAnswer answer = SignIn(Changed(AuthorizationForm(), "scope", "openid"));
  const std::string code = Between(answer.Header("Location"), "?code=", "&");
  const Json::Value tokens = Parse(PostToken(CodeForm(code)));
  EXPECT_EQ(Exchange(tokens["access_token"].asString()).status, 403);
}

TEST_F(OauthTest, AuthKeysGiveACodeForTokens) {
  const ClientAnswer answer = PostForm(kGrant, GrantForm(), {kClientHeader});
  EXPECT_EQ(answer.status, 200);
  EXPECT_EQ(Parse(answer)["state"], "1700000000");
  const Json::Value tokens = Parse(PostToken(CodeForm(Parse(answer)["grant_code"].asString())));
  EXPECT_EQ(tokens["scope"], "openid sn:NL00000001A mac:02:00:5e:10:00:01");
  EXPECT_EQ(Exchange(tokens["access_token"].asString()).status, 200);
}

TEST_F(OauthTest, GrantRefusals) {
  const auto status = [this](const std::string& name, const std::string& value) {
    return PostForm(kGrant, Changed(GrantForm(), name, value), {kClientHeader}).status;
  };
  EXPECT_EQ(PostForm(kGrant, GrantForm()).status, 400);
  EXPECT_EQ(status("client_id", "other"), 400);
  EXPECT_EQ(status("redirect_url", "https://evil.example/"), 400);
  EXPECT_EQ(status("state", ""), 400);
  EXPECT_EQ(status("code_challenge", "x"), 400);
  EXPECT_EQ(status("auth_key", "unknown"), 401);
  EXPECT_EQ(PostForm(kGrant, Joined({{"scopes[]", "sn:NL2"}}, GrantForm()), {kClientHeader}).status,
            400);
  SetState("account_not_found");
  EXPECT_EQ(PostForm(kGrant, GrantForm(), {kClientHeader}).status, 401);
}

TEST_F(OauthTest, LogoutUnlinksAndRevokes) {
  const Json::Value tokens = GetTokens();
  const std::string access = tokens["access_token"].asString();
  const ClientAnswer answer =
      PostForm(kLogout,
               Joined({{"serial_no", kSerial}, {"id", link_.user_id}, {"auth_key", link_.auth_key}},
                      {{"access_token", access}}),
               {kClientHeader});
  EXPECT_EQ(answer.status, 200);
  EXPECT_EQ(Parse(answer)["code"], "good");
  EXPECT_FALSE(cloud_.store().FindLink(kSerial));
  EXPECT_EQ(Exchange(access).status, 401);
  EXPECT_EQ(TokenError(RefreshForm(tokens["refresh_token"].asString())), "invalid_grant");
}

TEST_F(OauthTest, ADeviceThatWasUnlinkedMayLogOut) {
  const Pairs form = LinkForm();
  ASSERT_TRUE(cloud_.store().Unlink(kSerial));
  EXPECT_EQ(Parse(PostForm(kLogout, form, {kClientHeader}))["code"], "good");
}

TEST_F(OauthTest, LogoutRefusalsAreWordsWithStatus200) {
  const Pairs form = LinkForm();
  EXPECT_EQ(PostForm(kLogout, form).status, 400);
  const auto word = [this](const Pairs& changed) {
    const ClientAnswer answer = PostForm(kLogout, changed, {kClientHeader});
    EXPECT_EQ(answer.status, 200);
    return Parse(answer)["code"].asString();
  };
  EXPECT_EQ(word(Changed(form, "auth_key", "x")), "badauth");
  EXPECT_EQ(word({{"serial_no", kSerial}}), "badparam");
  SetState("badsys");
  EXPECT_EQ(word(form), "badsys");
  EXPECT_TRUE(cloud_.store().FindLink(kSerial));
  SetState("account_userid");
  EXPECT_EQ(word(form), "account_userid");
  EXPECT_FALSE(cloud_.store().FindLink(kSerial));
}

TEST(ScopeTest, NamesTheDevice) {
  EXPECT_EQ(devcloud::ScopeValue(kScope, "sn"), "NL00000001A");
  EXPECT_EQ(devcloud::ScopeValue(kScope, "mac"), "02:00:5e:10:00:01");
  EXPECT_EQ(devcloud::ScopeValue("openid xsn:1", "sn"), "");
}

}  // namespace
}  // namespace devcloud_test
