#include "devcloud/api/oauth.h"

#include <algorithm>
#include <array>
#include <initializer_list>
#include <utility>

#include "devcloud/api/device_api.h"
#include "devcloud/api/html_pages.h"
#include "devcloud/api/id_token.h"
#include "devcloud/http/json_text.h"
#include "devcloud/state/secrets.h"

namespace devcloud {
namespace {

constexpr const char* kAuthorizePath = "/oauth2/v1/authorize";
constexpr const char* kTokenPath = "/oauth2/v1/token";
constexpr const char* kEndSessionPath = "/oauth2/v1/end_session";
constexpr const char* kCookieName = "__Host-sign-in";

constexpr std::array kAuthorizationParameters{
    "client_id", "redirect_uri",   "response_type",         "scope", "audience",
    "state",     "code_challenge", "code_challenge_method", "nonce"};

bool IsBase64Url(std::string_view text) {
  return text.find_first_not_of(
             "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_") ==
         std::string_view::npos;
}

bool IsCodeVerifier(std::string_view text) {
  return text.size() >= 43 && text.size() <= 128 &&
         text.find_first_not_of(
             "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-._~") ==
             std::string_view::npos;
}

bool VerifierFits(const std::string& verifier, const std::string& challenge) {
  return IsCodeVerifier(verifier) && SecretsEqual(Base64Url(Sha256(verifier)), challenge);
}

Response OauthError(const std::string& error, const std::string& description) {
  Json::Value body(Json::objectValue);
  body["error"] = error;
  body["error_description"] = description;
  return JsonResponse(400, body);
}

Response Redirect(const std::string& uri,
                  const std::vector<std::pair<std::string, std::string>>& parameters) {
  return {.status = 302,
          .headers = {{"Location", AppendQuery(uri, parameters)},
                      {"Cache-Control", "no-store"},
                      {"Referrer-Policy", "no-referrer"}}};
}

// The value of the sign-in cookie if the browser sent one that we may have set.
std::optional<std::string> ReadCookie(const Request& request) {
  const std::string cookies = "; " + request.HeaderOr("Cookie") + ";";
  const std::string start = std::string("; ") + kCookieName + "=";
  const std::size_t found = cookies.find(start);
  if (found == std::string::npos) return std::nullopt;
  const std::size_t from = found + start.size();
  std::string value = cookies.substr(from, cookies.find(';', from) - from);
  if (!IsCodeChallenge(value)) return std::nullopt;
  return value;
}

// HTTP headers cannot hold what a redirect address must not hold either.
bool IsPrintable(std::string_view text) {
  return std::all_of(text.begin(), text.end(), [](char c) { return c >= ' ' && c < 0x7f; });
}

}  // namespace

bool IsCodeChallenge(const std::string& text) { return text.size() == 43 && IsBase64Url(text); }

struct Oauth::AuthorizationRequest {
  Form form;  // the known parameters only, each at most once

  // Nothing when a parameter comes twice.
  static std::optional<AuthorizationRequest> From(const Form& all) {
    std::vector<std::pair<std::string, std::string>> known;
    for (const char* name : kAuthorizationParameters) {
      const std::vector<std::string> values = all.GetAll(name);
      if (values.size() > 1) return std::nullopt;
      if (!values.empty()) known.emplace_back(name, values.front());
    }
    return AuthorizationRequest{Form(std::move(known))};
  }

  [[nodiscard]] Response RedirectError(const char* error) const {
    return Redirect(form.Get("redirect_uri"), {{"error", error}, {"state", form.Get("state")}});
  }

  // The error to send the browser back with, if the request cannot be granted to anyone.
  [[nodiscard]] const char* Flaw() const {
    if (form.Get("response_type") != "code") return "unsupported_response_type";
    if (form.Get("code_challenge_method") != "S256" ||
        !IsCodeChallenge(form.Get("code_challenge"))) {
      return "invalid_request";
    }
    return IsPrintable(form.Get("scope")) ? nullptr : "invalid_scope";
  }
};

Oauth::Oauth(Store& store, Clients& clients, TokenStore& tokens, WallClock clock,
             OauthSettings settings)
    : store_(store),
      clients_(clients),
      tokens_(tokens),
      clock_(std::move(clock)),
      settings_(std::move(settings)),
      csrf_key_(RandomToken()) {}

void Oauth::AddRoutes(Router& router) {
  router.Add("GET", kAuthorizePath,
             [this](const Request& request, const auto&) { return ShowSignIn(request); });
  router.Add("POST", kAuthorizePath,
             [this](const Request& request, const auto&) { return SignIn(request); });
  router.Add("POST", kTokenPath,
             [this](const Request& request, const auto&) { return Token(request); });
  router.Add("GET", kEndSessionPath, [this](const Request& request, const auto&) {
    return EndSession(Form::Parse(request.query).value_or(Form()));
  });
  router.Add("POST", kEndSessionPath, [this](const Request& request, const auto&) {
    return EndSession(ReadForm(request).value_or(Form()));
  });
  router.Add("GET", kLoginCallbackPath, [](const Request&, const auto&) {
    return MessagePage(200, "Signed in",
                       "Copy the address of this page from the address bar and give it to the "
                       "program that sent you here.");
  });
  router.Add("GET", kLogoutCallbackPath, [](const Request&, const auto&) {
    return MessagePage(200, "Signed out", "You can close this page.");
  });
}

// Why the browser must not even be sent back, if that is so.
std::optional<std::string> Oauth::WhyUntrusted(const AuthorizationRequest& asked) {
  const std::optional<Client> client = clients_.Find(asked.form.Get("client_id"));
  if (!client) return "The program that sent you here is not known.";
  if (!clients_.MayRedirect(*client, asked.form.Get("redirect_uri"))) {
    return "The address to return to is not registered.";
  }
  return std::nullopt;
}

// Belongs to this browser and to these parameters, so that neither can be swapped.
std::string Oauth::CsrfToken(const std::string& cookie, const AuthorizationRequest& asked) const {
  return HmacHex(csrf_key_, AppendQuery(cookie, asked.form.pairs()));
}

Response Oauth::SignInAgain(const std::string& cookie, const AuthorizationRequest& asked,
                            const std::string& email, const std::string& error) const {
  SignInForm page{
      .action = kAuthorizePath, .hidden = asked.form.pairs(), .email = email, .error = error};
  page.hidden.emplace_back("csrf", CsrfToken(cookie, asked));
  return SignInPage(error.empty() ? 200 : 403, page);
}

Response Oauth::ShowSignIn(const Request& request) {
  const auto asked = AuthorizationRequest::From(Form::Parse(request.query).value_or(Form()));
  if (!asked) return MessagePage(400, "Sign-in refused", "A parameter came twice.");
  if (const auto reason = WhyUntrusted(*asked)) {
    return MessagePage(400, "Sign-in refused", *reason);
  }
  if (const char* error = asked->Flaw()) return asked->RedirectError(error);
  const std::optional<std::string> old_cookie = ReadCookie(request);
  const std::string cookie = old_cookie ? *old_cookie : RandomToken();
  Response page = SignInAgain(cookie, *asked, "", "");
  page.headers.push_back({"Set-Cookie", std::string(kCookieName) + "=" + cookie +
                                            "; Path=/; Secure; HttpOnly; SameSite=Lax"});
  return page;
}

Response Oauth::SignIn(const Request& request) {
  const std::optional<Form> form = ReadForm(request);
  const auto asked = AuthorizationRequest::From(form.value_or(Form()));
  if (!asked) return MessagePage(400, "Sign-in refused", "A parameter came twice.");
  if (const auto reason = WhyUntrusted(*asked)) {
    return MessagePage(400, "Sign-in refused", *reason);
  }
  const std::optional<std::string> cookie = ReadCookie(request);
  if (!cookie || !SecretsEqual(form->Get("csrf"), CsrfToken(*cookie, *asked))) {
    return MessagePage(403, "Sign-in refused",
                       "This form has not been opened in this browser, or is out of date.");
  }
  if (const char* error = asked->Flaw()) return asked->RedirectError(error);
  if (form->Get("choice") == "cancel") return asked->RedirectError("access_denied");
  return CheckSignIn(request, *form, *asked);
}

Response Oauth::CheckSignIn(const Request& request, const Form& form,
                            const AuthorizationRequest& asked) {
  const std::string email = form.Get("email");
  const std::string cookie = ReadCookie(request).value_or("");
  const std::optional<Account> account = store_.FindAccountByEmail(email);
  if (!account || !store_.PasswordFits(account->user_id, form.Get("password"))) {
    return SignInAgain(cookie, asked, email, "E-mail or password is wrong.");
  }
  if (!IsSuccessWord(account->state)) {
    return SignInAgain(cookie, asked, email, "This account cannot be used: " + account->state);
  }
  const std::string code = tokens_.IssueCode(
      {.grant = {asked.form.Get("client_id"), account->user_id, asked.form.Get("scope")},
       .redirect_uri = asked.form.Get("redirect_uri"),
       .code_challenge = asked.form.Get("code_challenge")});
  return Redirect(asked.form.Get("redirect_uri"),
                  {{"code", code}, {"state", asked.form.Get("state")}});
}

Response Oauth::Token(const Request& request) {
  const std::optional<Form> form = ReadForm(request);
  if (!form) return OauthError("invalid_request", "the body is not a form");
  const std::string client_id = form->Get("client_id");
  const std::optional<Client> client = clients_.Find(client_id);
  if (!client || request.HeaderOr("X-Client-ID") != client_id) {
    return OauthError("invalid_client", "client_id is unknown or not that of X-Client-ID");
  }
  Transaction transaction(store_.database());
  Response response = AnswerTokenForm(*form, *client);
  transaction.Commit();  // a refusal too: it may have revoked something
  return response;
}

Response Oauth::AnswerTokenForm(const Form& form, const Client& client) {
  const std::string type = form.Get("grant_type");
  if (type == "authorization_code") return ExchangeCode(form, client);
  if (type == "refresh_token") return Refresh(form, client);
  return OauthError("unsupported_grant_type", "authorization_code or refresh_token");
}

std::optional<Account> Oauth::FindGoodAccount(const std::string& user_id) {
  const std::optional<Account> account = store_.FindAccount(user_id);
  return account && IsSuccessWord(account->state) ? account : std::nullopt;
}

Response Oauth::ExchangeCode(const Form& form, const Client& client) {
  const std::string code = form.Get("code");
  const std::optional<CodeGrant> granted = tokens_.RedeemCode(code);
  if (!granted) return OauthError("invalid_grant", "the code is unknown, used or expired");
  if (granted->grant.client_id != client.client_id) {
    return OauthError("invalid_grant", "the code belongs to another client");
  }
  if (granted->redirect_uri != form.Get("redirect_uri")) {
    return OauthError("invalid_grant", "redirect_uri is not the one the code was sent to");
  }
  if (!VerifierFits(form.Get("code_verifier"), granted->code_challenge)) {
    return OauthError("invalid_grant", "code_verifier does not fit the challenge");
  }
  const std::optional<Account> account = FindGoodAccount(granted->grant.user_id);
  if (!account) return OauthError("invalid_grant", "the account cannot be used");
  return IssueTokens(tokens_.StartFamily(granted->grant, code), client, *account);
}

Response Oauth::Refresh(const Form& form, const Client& client) {
  const std::string token = form.Get("refresh_token");
  // First the account, whose trouble may pass: it must not cost the token.
  const auto known = tokens_.FindByAnyToken(token, TokenKind::kRefresh);
  const auto account = known ? FindGoodAccount(known->grant.user_id) : std::nullopt;
  if (known && !account) return OauthError("invalid_grant", "the account cannot be used");
  const std::optional<Family> family = tokens_.UseRefreshToken(token, client.client_id);
  if (!family) return OauthError("invalid_grant", "the refresh token is expired or revoked");
  return IssueTokens(*family, client, *account);
}

Response Oauth::IssueTokens(const Family& family, const Client& client, const Account& account) {
  Json::Value claims(Json::objectValue);
  claims["iss"] = settings_.issuer;
  claims["sub"] = account.user_id;
  claims["aud"] = client.client_id;
  claims["iat"] = Json::Int64{clock_()};
  claims["exp"] = Json::Int64{clock_() + client.access_token_seconds};
  claims["email"] = account.email;
  claims["jti"] = RandomId();
  const std::string id_token = SignIdToken(claims, settings_.signing_key_pem);
  tokens_.RecordToken(family, TokenKind::kId, id_token, client.access_token_seconds);
  Json::Value answer(Json::objectValue);
  answer["access_token"] =
      tokens_.IssueToken(family, TokenKind::kAccess, client.access_token_seconds);
  answer["id_token"] = id_token;
  answer["refresh_token"] =
      tokens_.IssueToken(family, TokenKind::kRefresh, client.refresh_token_seconds);
  answer["token_type"] = "Bearer";
  answer["expires_in"] = Json::Int64{client.access_token_seconds};
  answer["scope"] = family.grant.scope;
  return JsonResponse(200, answer);
}

Response Oauth::EndSession(const Form& form) {
  const std::optional<Family> family =
      tokens_.FindByAnyToken(form.Get("id_token_hint"), TokenKind::kId);
  if (!family) return MessagePage(400, "Sign-out refused", "id_token_hint is not an ID token.");
  const std::string* target = form.Find("post_logout_redirect_uri");
  const std::optional<Client> client = clients_.Find(family->grant.client_id);
  if (target != nullptr && (!client || !clients_.MayRedirectAfterLogout(*client, *target))) {
    return MessagePage(400, "Sign-out refused", "The address to return to is not registered.");
  }
  tokens_.RevokeFamily(family->id);
  if (target == nullptr) return MessagePage(200, "Signed out", "You can close this page.");
  return Redirect(*target, {{"state", form.Get("state")}});
}

}  // namespace devcloud
