#include "devcloud/api/oauth.h"

#include "devcloud/state/secrets.h"
#include "tests/devcloud/api/oauth_fixture.h"

namespace devcloud_test {
namespace {

using testing::StartsWith;

TEST_F(OauthTest, SignInGivesACodeForTokens) {
  const ClientAnswer answer = SignIn(AuthorizationForm());
  EXPECT_EQ(answer.status, 302);
  const std::string location = answer.Header("Location");
  EXPECT_THAT(location, StartsWith(std::string(kCallback) + "?code="));
  EXPECT_THAT(location, testing::EndsWith("&state=s%20t%26%22%3C"));
  const Json::Value tokens = Parse(PostToken(CodeForm(Between(location, "?code=", "&"))));
  EXPECT_EQ(tokens["token_type"], "Bearer");
  EXPECT_EQ(tokens["expires_in"], 3600);
  EXPECT_EQ(tokens["scope"], kScope);
  EXPECT_FALSE(tokens["access_token"].asString().empty());
  EXPECT_FALSE(tokens["refresh_token"].asString().empty());
  EXPECT_FALSE(tokens["id_token"].asString().empty());
}

TEST_F(OauthTest, CodesNeedTheirVerifierClientAndAddress) {
  EXPECT_EQ(TokenError(Changed(CodeForm(GetCode()), "code_verifier", std::string(43, 'x'))),
            "invalid_grant");
  EXPECT_EQ(TokenError(Changed(CodeForm(GetCode()), "code_verifier", "")), "invalid_grant");
  EXPECT_EQ(TokenError(Changed(CodeForm(GetCode()), "redirect_uri", "https://localhost/")),
            "invalid_grant");
  EXPECT_EQ(TokenError(CodeForm("unknown")), "invalid_grant");
  const Pairs other = Changed(CodeForm(GetCode()), "client_id", "hos-device-register");
  const ClientAnswer answer = PostForm(kToken, other, {"X-Client-ID: hos-device-register"});
  EXPECT_EQ(Parse(answer)["error"], "invalid_grant");
}

TEST_F(OauthTest, AFailedAttemptUsesTheCodeUp) {
  const std::string code = GetCode();
  EXPECT_EQ(TokenError(Changed(CodeForm(code), "code_verifier", std::string(43, 'x'))),
            "invalid_grant");
  EXPECT_EQ(TokenError(CodeForm(code)), "invalid_grant");
}

TEST_F(OauthTest, CodesExpireAfterAMinute) {
  const std::string code = GetCode();
  now_ += 59;
  EXPECT_EQ(TokenError(CodeForm(code)), "");
  const std::string late = GetCode();
  now_ += 60;
  EXPECT_EQ(TokenError(CodeForm(late)), "invalid_grant");
}

TEST_F(OauthTest, ACodeUsedTwiceRevokesItsTokens) {
  const std::string code = GetCode();
  const Json::Value tokens = Parse(PostToken(CodeForm(code)));
  EXPECT_EQ(Exchange(tokens["access_token"].asString()).status, 200);
  EXPECT_EQ(TokenError(CodeForm(code)), "invalid_grant");
  EXPECT_EQ(Exchange(tokens["access_token"].asString()).status, 401);
  EXPECT_EQ(TokenError(RefreshForm(tokens["refresh_token"].asString())), "invalid_grant");
}

TEST_F(OauthTest, RefreshTokensRotate) {
  const Json::Value first = GetTokens();
  const Json::Value second = Parse(PostToken(RefreshForm(first["refresh_token"].asString())));
  EXPECT_NE(second["refresh_token"], first["refresh_token"]);
  EXPECT_EQ(TokenError(RefreshForm(second["refresh_token"].asString())), "");
}

TEST_F(OauthTest, ARefreshTokenUsedTwiceRevokesTheFamily) {
  const Json::Value first = GetTokens();
  const Json::Value second = Parse(PostToken(RefreshForm(first["refresh_token"].asString())));
  EXPECT_EQ(TokenError(RefreshForm(first["refresh_token"].asString())), "invalid_grant");
  EXPECT_EQ(TokenError(RefreshForm(second["refresh_token"].asString())), "invalid_grant");
  EXPECT_EQ(Exchange(second["access_token"].asString()).status, 401);
  EXPECT_TRUE(cloud_.tokens().Families().at(0).revoked);
}

TEST_F(OauthTest, RefreshTokensExpireAndBelongToTheirClient) {
  const Json::Value tokens = GetTokens();
  const Pairs other =
      Changed(RefreshForm(tokens["refresh_token"].asString()), "client_id", "hos-device-register");
  EXPECT_EQ(PostForm(kToken, other, {"X-Client-ID: hos-device-register"}).status, 400);
  EXPECT_EQ(TokenError(RefreshForm(tokens["refresh_token"].asString())), "");
  const Json::Value more = GetTokens();
  now_ += std::int64_t{31} * 24 * 3600;
  EXPECT_EQ(TokenError(RefreshForm(more["refresh_token"].asString())), "invalid_grant");
}

TEST_F(OauthTest, AnAccountInTroubleGetsNoTokensAndLosesNone) {
  const std::string token = GetTokens()["refresh_token"].asString();
  SetState("badauth");
  EXPECT_EQ(TokenError(RefreshForm(token)), "invalid_grant");
  SetState("good");
  EXPECT_EQ(TokenError(RefreshForm(token)), "");
}

TEST_F(OauthTest, TheTokenEndpointKnowsItsClients) {
  const Pairs form = CodeForm(GetCode());
  EXPECT_EQ(Parse(PostForm(kToken, form))["error"], "invalid_client");
  EXPECT_EQ(Parse(PostForm(kToken, form, {"X-Client-ID: other"}))["error"], "invalid_client");
  EXPECT_EQ(TokenError(Changed(form, "client_id", "other")), "invalid_client");
  EXPECT_EQ(TokenError(Changed(form, "grant_type", "password")), "unsupported_grant_type");
  const ClientAnswer text = client_.Send({.url = Url(kToken),
                                          .body = Encode(form),
                                          .headers = {kClientHeader, "Content-Type: text/plain"}});
  EXPECT_EQ(Parse(text)["error"], "invalid_request");
}

TEST_F(OauthTest, LifetimesAreTheClients) {
  devcloud::Client client = *cloud_.clients().Find("hos-device-login");
  client.access_token_seconds = 5;
  cloud_.clients().Save(client);
  const Json::Value tokens = GetTokens();
  EXPECT_EQ(tokens["expires_in"], 5);
  now_ += 5;
  EXPECT_EQ(Exchange(tokens["access_token"].asString()).status, 401);
}

TEST_F(OauthTest, SecretsAreStoredAsHashes) {
  const Json::Value tokens = GetTokens();
  devcloud::Statement select(cloud_.state().database, "SELECT hash FROM tokens ORDER BY id");
  std::vector<std::string> hashes;
  while (select.Next()) hashes.push_back(select.Text());
  EXPECT_THAT(hashes,
              testing::UnorderedElementsAre(devcloud::Sha256Hex(tokens["access_token"].asString()),
                                            devcloud::Sha256Hex(tokens["refresh_token"].asString()),
                                            devcloud::Sha256Hex(tokens["id_token"].asString())));
}

TEST_F(OauthTest, EndingTheSessionRevokesAndReturns) {
  const Json::Value tokens = GetTokens();
  const auto end = [&](const std::string& target) {
    return client_.Send({.url = devcloud::AppendQuery(
                             Url(kEndSession), {{"id_token_hint", tokens["id_token"].asString()},
                                                {"post_logout_redirect_uri", target},
                                                {"state", "7"}})});
  };
  EXPECT_EQ(end("https://evil.example/").status, 400);
  EXPECT_EQ(Exchange(tokens["access_token"].asString()).status, 200);
  EXPECT_EQ(end("https://localhost/oauth2/v1/logout_callback").Header("Location"),
            "https://localhost/oauth2/v1/logout_callback?state=7");
  EXPECT_EQ(Exchange(tokens["access_token"].asString()).status, 401);
  EXPECT_EQ(client_.Send({.url = Url(kEndSession)}).status, 400);
  EXPECT_EQ(PostForm(kEndSession, {{"id_token_hint", tokens["id_token"].asString()}}).status, 200);
}

}  // namespace
}  // namespace devcloud_test
