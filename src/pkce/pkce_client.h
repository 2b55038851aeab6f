// The OAuth2 tokens of one named client, in a JSON file of the client's own.
//
//   nodelink::PkceClient client("login");
//   client.SetConfig(nodelink::LoadPkceLoginConfig());  // pkce/pkce_config.h
//   if (client.HasToken()) {
//     std::puts(client.GetIdToken().c_str());
//   }
#pragma once

#include <json/value.h>

#include <memory>
#include <optional>
#include <string>

namespace nodelink {

class PkceClientImpl;
struct LinkIdentity;
struct TokenRequest;

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
  // no whole numbers. The server's answer is stored only while the record names the link that it
  // was asked for, else dropped with kNoAccount; tokens that somebody stored meanwhile are newer
  // and stay.
  std::string GetAccessToken();
  std::string GetIdToken();

  // Trades an authorization code and its PKCE code verifier for tokens and stores them; all three
  // arguments go to the token endpoint as they are, which answers within 30 seconds. Throws
  // ZomiException with kBadResponse (transfer, or a status that is not 200), kWrongJsonFormat,
  // kNoToken (a token is missing).
  void PkceLogin(const std::string& code, const std::string& code_verifier,
                 const std::string& redirect_uri);

  // The same for a code that was granted to the link of `asked_for` (pkce/token_request.h).
  void PkceLogin(const std::string& code, const std::string& code_verifier,
                 const std::string& redirect_uri, const TokenRequest& asked_for);

  // A request for tokens that is about to be made on behalf of `link`.
  TokenRequest RequestFor(const std::optional<LinkIdentity>& link) const;

 private:
  std::unique_ptr<PkceClientImpl> impl_;
};

}  // namespace nodelink
