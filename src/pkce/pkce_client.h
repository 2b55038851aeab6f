// The OAuth2 tokens of one named client, in a JSON file of the client's own.
#pragma once

#include <json/value.h>

#include <memory>
#include <string>

namespace nodelink {

class PkceClientImpl;

// Each operation but SetConfig and HasToken runs under a lock between processes, waited for 30
// seconds at most; one that cannot be had throws ZomiException with kNoToken. On every failure the
// token file is as it was.
class PkceClient {
 public:
  // `name` names the token file, /usr/kivo/etc/veltrix-account/private/NAME_token.json, and the
  // lock files.
  explicit PkceClient(const std::string& name);
  PkceClient(const PkceClient&) = delete;
  PkceClient& operator=(const PkceClient&) = delete;
  virtual ~PkceClient();

  // The finished configuration (pkce/pkce_config.h); its "client_id" and "token_endpoint" are used.
  void SetConfig(const Json::Value& config);

  // Whether the token file can be opened; a broken one counts.
  bool HasToken() const;

  // The stored token as text, renewed first when its lifetime, in seconds from the time it was
  // stored, has passed. Throws ZomiException with kNoToken (no
  // token file, or no such member), kWrongJsonFormat (the file), kAuthFailed (the refresh token is
  // refused) or as the renewal's request fails; boost::bad_lexical_cast when the stored times are
  // no whole numbers.
  std::string GetAccessToken();
  std::string GetIdToken();

  // Trades an authorization code and its PKCE code verifier for tokens and stores them; all three
  // arguments go to the token endpoint as they are, which answers within 30 seconds. Throws
  // ZomiException with kBadResponse (transfer, or a status that is not 200), kWrongJsonFormat,
  // kNoToken (a token is missing).
  void PkceLogin(const std::string& code, const std::string& code_verifier,
                 const std::string& redirect_uri);

 private:
  std::unique_ptr<PkceClientImpl> impl_;
};

}  // namespace nodelink
