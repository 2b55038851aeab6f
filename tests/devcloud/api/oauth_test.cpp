#include "devcloud/api/oauth.h"

#include "devcloud/api/account_api.h"
#include "devcloud/api/id_token.h"
#include "devcloud/http/certificates.h"
#include "devcloud/http/html.h"
#include "devcloud/state/secrets.h"
#include "tests/devcloud/cloud_fixture.h"

namespace devcloud_test {
namespace {

using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

constexpr const char* kAuthorize = "/oauth2/v1/authorize";
constexpr const char* kToken = "/oauth2/v1/token";
constexpr const char* kEndSession = "/oauth2/v1/end_session";
constexpr const char* kExchange = "/oauth2/api/v1/device/core/authkey/exchange";
constexpr const char* kGrant = "/migration/api/v1/device/core/authorization_code/grant";
constexpr const char* kLogout = "/device/api/logout";
constexpr const char* kVerifier = "dBjftJeZ4CVP-mB92K27uhbUJU1p1r_wW1gFWFOEjXk";
constexpr const char* kChallenge = "E9Melhoa2OwvFrEMTJguCHaoeK1t8URWbuGJSstw-cM";
constexpr const char* kCallback = "https://localhost/oauth2/v1/login_callback";
constexpr const char* kScope = "openid offline_access sn:NL00000001A mac:02:00:5e:10:00:01";
constexpr const char* kClientHeader = "X-Client-ID: hos-device-login";

Pairs Changed(Pairs form, const std::string& name, const std::string& value) {
  for (auto& [key, old] : form) {
    if (key == name) old = value;
  }
  return form;
}

Pairs Joined(Pairs first, const Pairs& second) {
  first.insert(first.end(), second.begin(), second.end());
  return first;
}

// The value of a hidden input or of a query parameter.
std::string Between(const std::string& text, const std::string& start, const std::string& end) {
  const std::size_t found = text.find(start);
  if (found == std::string::npos) return {};
  const std::size_t from = found + start.size();
  return text.substr(from, text.find(end, from) - from);
}

class OauthTest : public CloudTest {
 protected:
  static Pairs AuthorizationForm() {
    return {{"response_type", "code"},
            {"client_id", "hos-device-login"},
            {"redirect_uri", kCallback},
            {"scope", kScope},
            {"audience", "https://localhost/device"},
            {"code_challenge", kChallenge},
            {"code_challenge_method", "S256"},
            {"state", "s t&\"<"}};
  }

  ClientAnswer OpenSignIn(const Pairs& form) {
    return client_.Send({.url = devcloud::AppendQuery(Url(kAuthorize), form)});
  }

  // What a browser sends after a person has filled in the form.
  ClientAnswer SignIn(const Pairs& form, const std::string& password = kPassword,
                      const std::string& choice = "sign_in") {
    const ClientAnswer page = OpenSignIn(form);
    const Pairs filled = Joined(form, {{"csrf", Between(page.body, "csrf\" value=\"", "\"")},
                                       {"email", kEmail},
                                       {"password", password},
                                       {"choice", choice}});
    return PostForm(kAuthorize, filled, {"Cookie: " + Between(page.head, "Set-Cookie: ", ";")});
  }

  std::string GetCode() {
    return Between(SignIn(AuthorizationForm()).Header("Location"), "?code=", "&");
  }

  static Pairs CodeForm(const std::string& code) {
    return {{"grant_type", "authorization_code"},
            {"client_id", "hos-device-login"},
            {"redirect_uri", kCallback},
            {"code", code},
            {"code_verifier", kVerifier}};
  }

  static Pairs RefreshForm(const std::string& token) {
    return {{"grant_type", "refresh_token"},
            {"refresh_token", token},
            {"client_id", "hos-device-login"}};
  }

  ClientAnswer PostToken(const Pairs& form) { return PostForm(kToken, form, {kClientHeader}); }

  Json::Value GetTokens() { return Parse(PostToken(CodeForm(GetCode()))); }

  // Empty when the form is answered with tokens.
  std::string TokenError(const Pairs& form) {
    const ClientAnswer answer = PostToken(form);
    EXPECT_EQ(answer.status, Parse(answer).isMember("error") ? 400 : 200);
    return Parse(answer)["error"].asString();
  }

  ClientAnswer Exchange(const std::string& token) {
    return client_.Send({.url = Url(kExchange),
                         .body = "",
                         .headers = {"Authorization: Bearer " + token, "Content-Type:"}});
  }

  Pairs GrantForm() const {
    return {{"client_id", "hos-device-login"}, {"redirect_url", kCallback},
            {"state", "1700000000"},           {"code_challenge", kChallenge},
            {"auth_key", link_.auth_key},      {"scopes[]", "openid"},
            {"scopes[]", "sn:NL00000001A"},    {"scopes[]", "mac:02:00:5e:10:00:01"}};
  }
};

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

TEST_F(OauthTest, TheSignInPageEscapesAndIsGuarded) {
  const ClientAnswer page = OpenSignIn(AuthorizationForm());
  EXPECT_EQ(page.status, 200);
  EXPECT_THAT(page.body, HasSubstr("value=\"s t&amp;&quot;&lt;\""));
  EXPECT_THAT(page.body, Not(HasSubstr("\"<\"")));
  EXPECT_THAT(page.Header("Content-Security-Policy"), HasSubstr("default-src 'none'"));
  EXPECT_THAT(page.Header("Set-Cookie"), HasSubstr("Secure; HttpOnly"));
}

TEST_F(OauthTest, UnknownClientsAndAddressesAreNeverRedirectedTo) {
  for (const auto& [name, value] :
       Pairs{{"client_id", "other"},
             {"redirect_uri", "https://evil.example/oauth2/v1/login_callback"},
             {"redirect_uri", "https://localhost.evil.example/oauth2/v1/login_callback"},
             {"redirect_uri", "https://localhost:1@evil.example/oauth2/v1/login_callback"},
             {"redirect_uri", "https://localhost/oauth2/v1/login_callback/x"},
             {"redirect_uri", ""}}) {
    const ClientAnswer page = OpenSignIn(Changed(AuthorizationForm(), name, value));
    EXPECT_EQ(page.status, 400) << value;
    EXPECT_EQ(page.Header("Location"), "") << value;
  }
}

TEST_F(OauthTest, TheOwnCallbackMayHaveAPort) {
  EXPECT_EQ(
      OpenSignIn(Changed(AuthorizationForm(), "redirect_uri", Url(devcloud::kLoginCallbackPath)))
          .status,
      200);
}

TEST_F(OauthTest, RegisteredAddressesAreRedirectedTo) {
  devcloud::Client client = *cloud_.clients().Find("hos-device-login");
  client.redirect_uris = {"https://other.example/back?x=1"};
  cloud_.clients().Save(client);
  const ClientAnswer answer =
      SignIn(Changed(AuthorizationForm(), "redirect_uri", client.redirect_uris[0]));
  EXPECT_THAT(answer.Header("Location"), StartsWith("https://other.example/back?x=1&code="));
}

TEST_F(OauthTest, FlawedRequestsAreSentBackWithAnError) {
  const auto error = [this](const std::string& name, const std::string& value) {
    const ClientAnswer answer = OpenSignIn(Changed(AuthorizationForm(), name, value));
    EXPECT_EQ(answer.status, 302);
    return Between(answer.Header("Location"), "?error=", "&");
  };
  EXPECT_EQ(error("response_type", "token"), "unsupported_response_type");
  EXPECT_EQ(error("code_challenge_method", "plain"), "invalid_request");
  EXPECT_EQ(error("code_challenge", "short"), "invalid_request");
  EXPECT_EQ(error("code_challenge", std::string(43, '+')), "invalid_request");
  EXPECT_EQ(error("scope", "a\nb"), "invalid_scope");
}

TEST_F(OauthTest, DoubledParametersAreRefused) {
  EXPECT_EQ(OpenSignIn(Joined(AuthorizationForm(), {{"state", "2"}})).status, 400);
}

TEST_F(OauthTest, WrongPasswordsAndBadAccountsStayOnThePage) {
  const ClientAnswer wrong = SignIn(AuthorizationForm(), "wrong");
  EXPECT_EQ(wrong.status, 403);
  EXPECT_THAT(wrong.body, HasSubstr("E-mail or password is wrong."));
  EXPECT_THAT(wrong.body, Not(HasSubstr("value=\"wrong\"")));
  SetState("account_unverified");
  EXPECT_THAT(SignIn(AuthorizationForm()).body, HasSubstr("account_unverified"));
}

TEST_F(OauthTest, CancellingIsToldToTheProgram) {
  EXPECT_THAT(SignIn(AuthorizationForm(), "", "cancel").Header("Location"),
              HasSubstr("?error=access_denied&state="));
}

TEST_F(OauthTest, FormsFromElsewhereAreRefused) {
  const ClientAnswer page = OpenSignIn(AuthorizationForm());
  const std::string cookie = "Cookie: " + Between(page.head, "Set-Cookie: ", ";");
  const Pairs filled =
      Joined(AuthorizationForm(), {{"csrf", Between(page.body, "csrf\" value=\"", "\"")},
                                   {"email", kEmail},
                                   {"password", kPassword}});
  EXPECT_EQ(PostForm(kAuthorize, filled).status, 403);
  EXPECT_EQ(PostForm(kAuthorize, Changed(filled, "csrf", "x"), {cookie}).status, 403);
  EXPECT_EQ(PostForm(kAuthorize, Changed(filled, "state", "other"), {cookie}).status, 403);
  EXPECT_EQ(PostForm(kAuthorize, filled, {"Cookie: __Host-sign-in=" + std::string(43, 'a')}).status,
            403);
  EXPECT_EQ(PostForm(kAuthorize, filled, {cookie}).status, 302);
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

TEST_F(OauthTest, CallbackPagesShowNothingOfTheirAddress) {
  const ClientAnswer page =
      client_.Send({.url = Url("/oauth2/v1/login_callback?code=%3Cscript%3E&state=x")});
  EXPECT_EQ(page.status, 200);
  EXPECT_THAT(page.body, Not(HasSubstr("script")));
  EXPECT_EQ(client_.Send({.url = Url("/oauth2/v1/logout_callback")}).status, 200);
}

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

TEST(IdTokenTest, IsAJwtInThreeParts) {
  Json::Value claims(Json::objectValue);
  claims["sub"] = "7";
  const std::string token = devcloud::SignIdToken(claims, devcloud::MakePrivateKey());
  EXPECT_THAT(token, StartsWith(devcloud::Base64Url(R"({"alg":"ES256","typ":"JWT"})") + "." +
                                devcloud::Base64Url(R"({"sub":"7"})") + "."));
  // 64 bytes of signature.
  EXPECT_EQ(token.size() - token.rfind('.') - 1, 86U);
  EXPECT_THROW((void)devcloud::SignIdToken(claims, "no key"), std::runtime_error);
}

TEST(ScopeTest, NamesTheDevice) {
  EXPECT_EQ(devcloud::ScopeValue(kScope, "sn"), "NL00000001A");
  EXPECT_EQ(devcloud::ScopeValue(kScope, "mac"), "02:00:5e:10:00:01");
  EXPECT_EQ(devcloud::ScopeValue("openid xsn:1", "sn"), "");
}

TEST(HtmlTest, EscapesWhatMarksUp) {
  EXPECT_EQ(devcloud::EscapeHtml("<a href=\"x\">'&"), "&lt;a href=&quot;x&quot;&gt;&#39;&amp;");
}

}  // namespace
}  // namespace devcloud_test
