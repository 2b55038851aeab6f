#include "devcloud/api/oauth.h"

#include <memory>
#include <optional>
#include <utility>

#include "devcloud/api/code_challenge.h"
#include "devcloud/api/id_token.h"
#include "devcloud/api/sign_in_pages.h"
#include "devcloud/http/form.h"
#include "devcloud/http/json_text.h"
#include "devcloud/state/secrets.h"

namespace devcloud {
namespace {

Response OauthError(const std::string& error, const std::string& description) {
  Json::Value body(Json::objectValue);
  body["error"] = error;
  body["error_description"] = description;
  return JsonResponse(400, body);
}

class Oauth {
 public:
  Oauth(CloudState& state, OauthSettings settings)
      : state_(state), settings_(std::move(settings)) {}

  [[nodiscard]] Response Token(const Request& request) const;
  [[nodiscard]] Response EndSession(const Form& form) const;

 private:
  [[nodiscard]] Response AnswerTokenForm(const Form& form, const Client& client) const;
  [[nodiscard]] Response ExchangeCode(const Form& form, const Client& client) const;
  [[nodiscard]] Response Refresh(const Form& form, const Client& client) const;
  [[nodiscard]] Response IssueTokens(const Family& family, const Client& client,
                                     const Account& account) const;
  [[nodiscard]] std::optional<Account> FindGoodAccount(const std::string& user_id) const;

  CloudState& state_;
  OauthSettings settings_;
};

std::optional<Account> Oauth::FindGoodAccount(const std::string& user_id) const {
  const std::optional<Account> account = state_.store.FindAccount(user_id);
  return account && IsSuccessWord(account->state) ? account : std::nullopt;
}

Response Oauth::IssueTokens(const Family& family, const Client& client,
                            const Account& account) const {
  Json::Value claims(Json::objectValue);
  claims["iss"] = settings_.issuer;
  claims["sub"] = account.user_id;
  claims["aud"] = client.client_id;
  claims["iat"] = Json::Int64{state_.clock()};
  claims["exp"] = Json::Int64{state_.clock() + client.access_token_seconds};
  claims["email"] = account.email;
  claims["jti"] = RandomId();
  const std::string id_token = SignIdToken(claims, settings_.signing_key_pem);
  state_.tokens.RecordToken(family, TokenKind::kId, id_token, client.access_token_seconds);
  Json::Value answer(Json::objectValue);
  answer["access_token"] =
      state_.tokens.IssueToken(family, TokenKind::kAccess, client.access_token_seconds);
  answer["id_token"] = id_token;
  answer["refresh_token"] =
      state_.tokens.IssueToken(family, TokenKind::kRefresh, client.refresh_token_seconds);
  answer["token_type"] = "Bearer";
  answer["expires_in"] = Json::Int64{client.access_token_seconds};
  answer["scope"] = family.grant.scope;
  return JsonResponse(200, answer);
}

Response Oauth::ExchangeCode(const Form& form, const Client& client) const {
  const std::string code = form.Get("code");
  const std::optional<CodeGrant> granted = state_.tokens.RedeemCode(code);
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
  return IssueTokens(state_.tokens.StartFamily(granted->grant, code), client, *account);
}

Response Oauth::Refresh(const Form& form, const Client& client) const {
  const std::string token = form.Get("refresh_token");
  // First the account, whose trouble may pass: it must not cost the token.
  const auto known = state_.tokens.FindByAnyToken(token, TokenKind::kRefresh);
  const auto account = known ? FindGoodAccount(known->grant.user_id) : std::nullopt;
  if (known && !account) return OauthError("invalid_grant", "the account cannot be used");
  const std::optional<Family> family = state_.tokens.UseRefreshToken(token, client.client_id);
  if (!family) return OauthError("invalid_grant", "the refresh token is expired or revoked");
  return IssueTokens(*family, client, *account);
}

Response Oauth::AnswerTokenForm(const Form& form, const Client& client) const {
  const std::string type = form.Get("grant_type");
  if (type == "authorization_code") return ExchangeCode(form, client);
  if (type == "refresh_token") return Refresh(form, client);
  return OauthError("unsupported_grant_type", "authorization_code or refresh_token");
}

Response Oauth::Token(const Request& request) const {
  const std::optional<Form> form = ReadForm(request);
  if (!form) return OauthError("invalid_request", "the body is not a form");
  const std::string client_id = form->Get("client_id");
  const std::optional<Client> client = state_.clients.Find(client_id);
  if (!client || request.HeaderOr("X-Client-ID") != client_id) {
    return OauthError("invalid_client", "client_id is unknown or not that of X-Client-ID");
  }
  Transaction transaction(state_.database);
  Response response = AnswerTokenForm(*form, *client);
  transaction.Commit();  // a refusal too: it may have revoked something
  return response;
}

Response Oauth::EndSession(const Form& form) const {
  const std::optional<Family> family =
      state_.tokens.FindByAnyToken(form.Get("id_token_hint"), TokenKind::kId);
  if (!family) return MessagePage(400, "Sign-out refused", "id_token_hint is not an ID token.");
  const std::string* target = form.Find("post_logout_redirect_uri");
  const std::optional<Client> client = state_.clients.Find(family->grant.client_id);
  if (target != nullptr && (!client || !state_.clients.MayRedirectAfterLogout(*client, *target))) {
    return MessagePage(400, "Sign-out refused", "The address to return to is not registered.");
  }
  state_.tokens.RevokeFamily(family->id);
  if (target == nullptr) return MessagePage(200, "Signed out", "You can close this page.");
  return Redirect(*target, {{"state", form.Get("state")}});
}

}  // namespace

void AddOauth(Router& router, CloudState& state, OauthSettings settings) {
  constexpr char kEndSessionPath[] = "/oauth2/v1/end_session";
  const auto oauth = std::make_shared<const Oauth>(state, std::move(settings));
  router.Add("POST", "/oauth2/v1/token",
             [oauth](const Request& request, const auto&) { return oauth->Token(request); });
  router.Add("GET", kEndSessionPath, [oauth](const Request& request, const auto&) {
    return oauth->EndSession(Form::Parse(request.query).value_or(Form()));
  });
  router.Add("POST", kEndSessionPath, [oauth](const Request& request, const auto&) {
    return oauth->EndSession(ReadForm(request).value_or(Form()));
  });
  router.Add("GET", kLogoutCallbackPath, [](const Request&, const auto&) {
    return MessagePage(200, "Signed out", "You can close this page.");
  });
}

}  // namespace devcloud
