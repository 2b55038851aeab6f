// The account flows built on OAuth2 tokens: login, silent re-establishment, logout.
//
//   nodelink::AccountPkceServiceImpl account;
//   const std::string token = account.GetAccessTokenWithRescue();
//   std::printf("Authorization: Bearer %s\n", token.c_str());
//   const Json::Value identity = account.ExchangeAuthKey(token);
//   account.Logout(nodelink::AccessToken::kInclude);
#pragma once

#include <json/value.h>

#include <optional>
#include <string>

#include "account/account_data.h"
#include "account/account_service.h"
#include "pkce/pkce_client.h"

namespace nodelink {

struct TokenRequest;

// Whether the logout request carries the device's access token.
enum class AccessToken { kOmit, kInclude };

// The caller is root. Each request waits 30 seconds for its answer, each lock between processes 30
// seconds too. Every operation throws ZomiException: kWrongJsonFormat for a body or file that is no
// JSON, kBadResponse for a request or answer that failed, kAuthFailed where the server refuses the
// device, kNoToken for missing tokens or a lock that could not be had, kSystemError for a local
// failure, and the codes of reading the device's facts (kNoSerialNumber, kNoMacAddress).
class AccountPkceService {
 public:
  AccountPkceService() = default;
  AccountPkceService(const AccountPkceService&) = delete;
  AccountPkceService& operator=(const AccountPkceService&) = delete;
  virtual ~AccountPkceService() = default;

  // Completes an interactive sign-in: trades `code` and its verifier for tokens, stores the account
  // in the record and tells the plug-ins. `code` came with the browser, `code_verifier` (43
  // characters) belongs to the challenge in the sign-in's address, and `redirect_uri` is what that
  // address named: "login_redirect_uri" of the configuration (pkce/pkce_config.h). When it fails
  // after the tokens came, these stay and the record is as it was. Logins run one at a time: waits
  // 30 seconds at most for another one. Throws further the codes of AccountService::query, whose
  // profile ends the login, kAccountNotWritten, and kGenericError when another login does not end.
  virtual void Login(const std::string& code, const std::string& code_verifier,
                     const std::string& redirect_uri) = 0;

  // Obtains fresh tokens with the record's auth key, without a browser, and stores them.
  virtual void GrantByAuthKey() = 0;

  // Trades a bearer token for the account's "user_id" and "auth_key"; the account server's answer,
  // an object that holds both, whatever their type. kNoToken when it does not.
  virtual Json::Value ExchangeAuthKey(const std::string& token) = 0;

  // Ends the link at the account server, then locally. When the server does not agree the device
  // stays linked, and its status word gives the code; a device without an account is cleared
  // locally only. A link that another process made meanwhile is left alone.
  virtual void Logout(AccessToken access_token) = 0;

  // Removes the record, the report job and the token files. What cannot be removed is logged only.
  virtual void ClearLocalAccount() = 0;

  // The stored token as text, renewed when it has expired, so that it is good for a request now. A
  // missing token file, or a refresh token that the server refuses, is re-established once with the
  // record's auth key; when that fails after a refusal, the device is logged out, and kNoToken is
  // thrown. Throw further as PkceClient::GetAccessToken does.
  virtual std::string GetAccessTokenWithRescue() = 0;
  virtual std::string GetIdTokenWithRescue() = 0;
};

class AccountPkceServiceImpl : public AccountService, public AccountPkceService {
 public:
  // Loads the login configuration (pkce/pkce_config.h); throws as that does. Its tokens are those
  // of the client "login".
  AccountPkceServiceImpl();

  void Login(const std::string& code, const std::string& code_verifier,
             const std::string& redirect_uri) override;
  void GrantByAuthKey() override;
  Json::Value ExchangeAuthKey(const std::string& token) override;
  void Logout(AccessToken access_token) override;
  void ClearLocalAccount() override;
  std::string GetAccessTokenWithRescue() override;
  std::string GetIdTokenWithRescue() override;

  // As Logout, of that link only: throws ZomiException with kNoAccount,
  // logged, when the record does not name it any more.
  void LogoutLink(const LinkIdentity& link, AccessToken access_token);

 private:
  using TokenReader = std::string (PkceClient::*)();

  // The link that a flow acts for, as the record named it; nothing when that could not be read.
  using Link = std::optional<LinkIdentity>;

  void Grant(const TokenRequest& asked_for);
  void EndLink(const Link& link, AccessToken access_token);
  std::string GetTokenWithRescue(TokenReader read, const Link& link);
  void Rescue(const TokenRequest& asked_for);

  PkceClient client_;
};

}  // namespace nodelink
