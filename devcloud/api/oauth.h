// The identity host: sign-in page, token endpoint, end of session.
#pragma once

#include <optional>
#include <string>

#include "devcloud/http/form.h"
#include "devcloud/http/router.h"
#include "devcloud/state/clients.h"
#include "devcloud/state/store.h"
#include "devcloud/state/token_store.h"

namespace devcloud {

struct OauthSettings {
  std::string issuer = {};
  std::string signing_key_pem = {};  // P-256
};

class Oauth {
 public:
  // All references must outlive the object.
  Oauth(Store& store, Clients& clients, TokenStore& tokens, WallClock clock,
        OauthSettings settings);

  // Adds the paths to the router, which must not outlive the object.
  void AddRoutes(Router& router);

 private:
  struct AuthorizationRequest;

  [[nodiscard]] Response ShowSignIn(const Request& request);
  [[nodiscard]] Response SignIn(const Request& request);
  [[nodiscard]] Response CheckSignIn(const Request& request, const Form& form,
                                     const AuthorizationRequest& asked);
  [[nodiscard]] Response SignInAgain(const std::string& cookie, const AuthorizationRequest& asked,
                                     const std::string& email, const std::string& error) const;
  [[nodiscard]] std::optional<std::string> WhyUntrusted(const AuthorizationRequest& asked);
  [[nodiscard]] std::string CsrfToken(const std::string& cookie,
                                      const AuthorizationRequest& asked) const;

  [[nodiscard]] Response Token(const Request& request);
  [[nodiscard]] Response AnswerTokenForm(const Form& form, const Client& client);
  [[nodiscard]] Response ExchangeCode(const Form& form, const Client& client);
  [[nodiscard]] Response Refresh(const Form& form, const Client& client);
  [[nodiscard]] Response IssueTokens(const Family& family, const Client& client,
                                     const Account& account);
  [[nodiscard]] std::optional<Account> FindGoodAccount(const std::string& user_id);

  [[nodiscard]] Response EndSession(const Form& form);

  Store& store_;
  Clients& clients_;
  TokenStore& tokens_;
  WallClock clock_;
  OauthSettings settings_;
  std::string csrf_key_;
};

// True for a PKCE S256 challenge: 43 characters of base64url.
[[nodiscard]] bool IsCodeChallenge(const std::string& text);

}  // namespace devcloud
