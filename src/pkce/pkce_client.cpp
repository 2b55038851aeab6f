#include "pkce/pkce_client.h"

#include <array>
#include <boost/lexical_cast.hpp>
#include <cstdint>
#include <ctime>
#include <fstream>
#include <utility>

#include "account/account_files.h"
#include "core/error_code.h"
#include "core/include/internal/json_utils.h"
#include "core/include/internal/string_utils.h"
#include "core/json.h"
#include "core/json_value.h"
#include "core/log.h"
#include "core/zomi_exception.h"
#include "pkce/file_lock.h"
#include "pkce/http_answer.h"
#include "pkce/http_request.h"
#include "pkce/token_request.h"
#include "platform/hos_service.h"

namespace nodelink {
namespace {

// What a null in the token file is: no token, but a time that is no number.
enum class Null { kIsMissing, kIsEmpty };

}  // namespace

class PkceClientImpl {
 public:
  explicit PkceClientImpl(std::string name) : name_(std::move(name)) {}

  void SetConfig(const Json::Value& config) { config_ = config; }
  bool HasToken() const;
  std::string GetToken(const char* key);
  void PkceLogin(const std::string& code, const std::string& code_verifier,
                 const std::string& redirect_uri, const TokenRequest* asked_for);
  TokenRequest RequestFor(const std::optional<LinkIdentity>& link) const;

 private:
  std::string GetTokenPath() const;
  std::string ReadTokenValue(const std::string& key, Null null = Null::kIsMissing) const;
  std::int64_t GetExpireTime() const;
  bool IsExpired() const;
  TokenRequest RenewalRequest() const;
  std::string StoredRefreshToken() const;
  bool MayStore(const LinkLock& lock, const TokenRequest& asked_for) const;
  void SaveToken(const Json::Value& response, const TokenRequest* asked_for) const;
  void RenewToken();
  std::string LockPath(const char* suffix) const { return account_files::LockFile(name_ + suffix); }
  std::string ConfigText(const char* name) const;
  HttpAnswer Send(HttpForm form) const;

  std::string name_;
  Json::Value config_;
};

namespace {

constexpr unsigned int kLockTimeout = 30;  // seconds
constexpr int kOk = 200;
constexpr std::size_t kLoggedTokenLength = 10;

// The places of these lines in the log are fixed: administrators' filters know them.
constexpr LogSite kExchangeSite{"pkce_client", 102};
constexpr LogSite kNoObjectSite{"pkce_client", 131};
constexpr LogSite kRefusedSite{"pkce_client", 136};
constexpr LogSite kTokenMissingSite{"pkce_client", 141};

// Held until the end of its scope.
class TokenLock {
 public:
  explicit TokenLock(const std::string& path) : lock_(path, 0) {
    if (!lock_.Lock(kLockTimeout)) {
      throw ZomiException(kNoToken, FormatString("Failed to lock file: %s", lock_.path()));
    }
  }

 private:
  FileLock lock_;
};

bool HasAllTokens(const Json::Value& response) {
  constexpr std::array kTokens = {"access_token", "id_token", "refresh_token"};
  for (const char* token : kTokens) {
    if (!json::FilledTextMember(response, token)) return false;
  }
  return true;
}

[[noreturn]] void ThrowLogged(LogSite site, ErrorCode code, const std::string& message) {
  LogError(site, "%s", message.c_str());
  throw ZomiException(code, message);
}

void CheckRenewal(const HttpAnswer& answer, const Json::Value& response,
                  const std::string& refresh_token) {
  if (!response.isObject()) {
    ThrowLogged(kNoObjectSite, kBadResponse, AnswerText("parse renew token resp", answer));
  }
  if (answer.status != kOk) {
    ThrowLogged(kRefusedSite, kAuthFailed,
                AnswerText("renew token, refresh_token is expired or revoked", answer));
  }
  if (!HasAllTokens(response)) {
    LogError(kTokenMissingSite, "Failed to RenewToken by [%s], resp=%s",
             refresh_token.substr(0, kLoggedTokenLength).c_str(),
             json::StyledText(response, kLongestMessage).c_str());
    throw ZomiException(kNoToken, AnswerText("parse renew token resp", answer));
  }
}

}  // namespace

std::string PkceClientImpl::GetTokenPath() const { return account_files::TokenFile(name_); }

bool PkceClientImpl::HasToken() const { return std::ifstream(GetTokenPath()).is_open(); }

std::string PkceClientImpl::ConfigText(const char* name) const {
  return json::TextMember(config_, name).value_or("");
}

std::string PkceClientImpl::ReadTokenValue(const std::string& key, Null null) const {
  if (!HasToken()) throw ZomiException(kNoToken, "Failed to find an existed token file");
  Json::Value tokens;
  if (!json::fromFile(GetTokenPath(), tokens)) throw ZomiException(kWrongJsonFormat);
  const auto value = json::TextMember(tokens, key.c_str());
  if (!value || (null == Null::kIsMissing && tokens[key].isNull())) {
    throw ZomiException(kNoToken, "Failed to get key: " + key);
  }
  return *value;
}

// In 64 bits: a lifetime that a server gives may reach past the end of 32.
std::int64_t PkceClientImpl::GetExpireTime() const {
  const auto seconds = [this](const char* key) {
    return std::int64_t{boost::lexical_cast<int>(ReadTokenValue(key, Null::kIsEmpty))};
  };
  const std::int64_t created_at = seconds("created_at");
  return created_at + seconds("expires_in");
}

bool PkceClientImpl::IsExpired() const { return GetExpireTime() < std::time(nullptr); }

std::string PkceClientImpl::GetToken(const char* key) {
  const TokenLock lock(LockPath("_get_token"));
  if (IsExpired()) RenewToken();
  return ReadTokenValue(key);
}

// Empty when there is none, or none that can be read.
std::string PkceClientImpl::StoredRefreshToken() const {
  Json::Value tokens;
  return json::fromFile(GetTokenPath(), tokens)
             ? json::TextMember(tokens, "refresh_token").value_or("")
             : "";
}

TokenRequest PkceClientImpl::RequestFor(const std::optional<LinkIdentity>& link) const {
  return {link, StoredRefreshToken()};
}

// The link and its tokens are read together: a login may replace both.
TokenRequest PkceClientImpl::RenewalRequest() const {
  const LinkLock lock;
  const std::string refresh_token = ReadTokenValue("refresh_token");
  return {lock.Link(), refresh_token};
}

// False when somebody has stored newer tokens of the same link.
bool PkceClientImpl::MayStore(const LinkLock& lock, const TokenRequest& asked_for) const {
  if (lock.Link() != asked_for.link) throw LinkChanged(Here());
  const std::string stored = StoredRefreshToken();
  return stored.empty() || stored == asked_for.refresh_token;
}

void PkceClientImpl::SaveToken(const Json::Value& response, const TokenRequest* asked_for) const {
  const TokenLock lock(LockPath("_save_token"));
  Json::Value tokens = response;
  tokens["created_at"] = static_cast<Json::Int64>(std::time(nullptr));
  const LinkLock link;
  if (asked_for == nullptr || MayStore(link, *asked_for)) SaveJson(GetTokenPath(), tokens);
}

HttpAnswer PkceClientImpl::Send(HttpForm form) const {
  return Post({.url = ConfigText("token_endpoint"),
               .user_agent = HosService::GetUserAgent(),
               .header_sets = {{{"X-Client-ID", ConfigText("client_id")}}},
               .form = std::move(form)});
}

void PkceClientImpl::PkceLogin(const std::string& code, const std::string& code_verifier,
                               const std::string& redirect_uri, const TokenRequest* asked_for) {
  const TokenLock lock(LockPath("_exchange_token"));
  const HttpAnswer answer = Send({{"grant_type", "authorization_code"},
                                  {"client_id", ConfigText("client_id")},
                                  {"redirect_uri", redirect_uri},
                                  {"code", code},
                                  {"code_verifier", code_verifier}});
  CheckTransfer("exchange token", answer);
  CheckStatus("exchange token", answer);
  Json::Value response;
  ParseJson(answer.text, response);
  if (!HasAllTokens(response)) {
    LogError(kExchangeSite, "Failed to PkceLogin by [%s|%s], resp=%s", code.c_str(),
             code_verifier.c_str(), answer.text.c_str());
    throw ZomiException(kNoToken, AnswerText("parse exchange authkey resp", answer));
  }
  SaveToken(response, asked_for);
}

void PkceClientImpl::RenewToken() {
  const TokenLock lock(LockPath("_renew_token"));
  const TokenRequest asked_for = RenewalRequest();
  const std::string& refresh_token = asked_for.refresh_token;
  const HttpAnswer answer = Send({{"grant_type", "refresh_token"},
                                  {"refresh_token", refresh_token},
                                  {"client_id", ConfigText("client_id")}});
  CheckTransfer("renew token", answer);
  Json::Value response;
  ParseJson(answer.text, response);
  CheckRenewal(answer, response, refresh_token);
  SaveToken(response, &asked_for);
}

PkceClient::PkceClient(const std::string& name) : impl_(std::make_unique<PkceClientImpl>(name)) {}

PkceClient::~PkceClient() = default;

void PkceClient::SetConfig(const Json::Value& config) { impl_->SetConfig(config); }

bool PkceClient::HasToken() const { return impl_->HasToken(); }

std::string PkceClient::GetAccessToken() { return impl_->GetToken("access_token"); }

std::string PkceClient::GetIdToken() { return impl_->GetToken("id_token"); }

void PkceClient::PkceLogin(const std::string& code, const std::string& code_verifier,
                           const std::string& redirect_uri) {
  impl_->PkceLogin(code, code_verifier, redirect_uri, nullptr);
}

void PkceClient::PkceLogin(const std::string& code, const std::string& code_verifier,
                           const std::string& redirect_uri, const TokenRequest& asked_for) {
  impl_->PkceLogin(code, code_verifier, redirect_uri, &asked_for);
}

TokenRequest PkceClient::RequestFor(const std::optional<LinkIdentity>& link) const {
  return impl_->RequestFor(link);
}

}  // namespace nodelink
