#include "devcloud/api/sign_in.h"

#include "tests/devcloud/api/oauth_fixture.h"

namespace devcloud_test {
namespace {

using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

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

TEST_F(OauthTest, CallbackPagesShowNothingOfTheirAddress) {
  const ClientAnswer page =
      client_.Send({.url = Url("/oauth2/v1/login_callback?code=%3Cscript%3E&state=x")});
  EXPECT_EQ(page.status, 200);
  EXPECT_THAT(page.body, Not(HasSubstr("script")));
  EXPECT_EQ(client_.Send({.url = Url("/oauth2/v1/logout_callback")}).status, 200);
}

}  // namespace
}  // namespace devcloud_test
