#include "tests/devcloud/api/oauth_fixture.h"

namespace devcloud_test {
namespace {

TEST_F(OauthTest, ControlListsExpiresAndRevokes) {
  const Json::Value tokens = GetTokens();
  HttpClient plain;
  const std::string control = cloud_.control().Url();
  const auto call = [&](const std::string& method, const std::string& path) {
    return plain.Send({.url = control + path, .method = method});
  };
  const Json::Value list = Parse(call("GET", "/v1/tokens"));
  ASSERT_EQ(list.size(), 3U);
  EXPECT_EQ(list[0]["kind"], "id");
  EXPECT_EQ(list[1]["kind"], "access");
  EXPECT_EQ(list[2]["kind"], "refresh");
  EXPECT_EQ(list[1]["expires_at"], Json::Int64{now_ + 3600});
  const std::string access = "/v1/tokens/" + list[1]["id"].asString();
  EXPECT_EQ(call("POST", access + "/expire").status, 204);
  EXPECT_EQ(Exchange(tokens["access_token"].asString()).status, 401);
  EXPECT_EQ(call("POST", access + "/revoke").status, 204);
  EXPECT_EQ(call("POST", "/v1/tokens/99/revoke").status, 404);
  const Json::Value families = Parse(call("GET", "/v1/families"));
  EXPECT_EQ(families[0]["user_id"].asString(), account_.user_id);
  const std::string family = "/v1/families/" + families[0]["id"].asString();
  EXPECT_EQ(call("POST", family + "/expire").status, 204);
  EXPECT_EQ(TokenError(RefreshForm(tokens["refresh_token"].asString())), "invalid_grant");
  EXPECT_EQ(call("POST", family + "/revoke").status, 204);
  EXPECT_TRUE(Parse(call("GET", "/v1/families"))[0]["revoked"].asBool());
}

TEST_F(OauthTest, ControlChangesClients) {
  HttpClient plain;
  const std::string url = cloud_.control().Url() + "/v1/clients";
  EXPECT_EQ(Parse(plain.Send({.url = url})).size(), 2U);
  const auto patch = [&](const std::string& body) {
    return plain.Send({.url = url + "/hos-device-login", .method = "PATCH", .body = body});
  };
  EXPECT_EQ(
      Parse(patch(
          R"({"access_token_seconds":7,"redirect_uris":["https://a/"]})"))["redirect_uris"][0],
      "https://a/");
  EXPECT_EQ(Parse(plain.Send({.url = url + "/hos-device-login"}))["access_token_seconds"], 7);
  EXPECT_EQ(patch(R"({"redirect_uris":["https://a/\r\nX: y"]})").status, 400);
  EXPECT_EQ(patch(R"({"redirect_uris":[7]})").status, 400);
  EXPECT_EQ(patch(R"({"access_token_seconds":-1})").status, 400);
  EXPECT_EQ(plain.Send({.url = url + "/other"}).status, 404);
}

}  // namespace
}  // namespace devcloud_test
