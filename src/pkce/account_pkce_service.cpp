#include "pkce/account_pkce_service.h"

#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/split.hpp>
#include <ctime>
#include <utility>
#include <vector>

#include "account/account_files.h"
#include "account/account_link.h"
#include "account/link_lock.h"
#include "account/login_lock.h"
#include "account/record_change.h"
#include "account/server_info.h"
#include "account/token_files.h"
#include "account/user.h"
#include "account/zomi_config_remove.h"
#include "base/atomic_replace.h"
#include "core/error_code.h"
#include "core/include/internal/json_utils.h"
#include "core/json_value.h"
#include "core/log.h"
#include "core/zomi_exception.h"
#include "deviceapi/zomi_account_query_info.h"
#include "kivo/log.h"
#include "klibc/exec.h"
#include "pkce/http_answer.h"
#include "pkce/http_request.h"
#include "pkce/pkce_config.h"
#include "pkce/token_request.h"
#include "platform/code_pair.h"
#include "platform/hos_service.h"
#include "platform/report_job.h"
#include "platform/zomi_plugin_manager.h"

namespace nodelink {
namespace {

constexpr char kExchangePath[] = "/oauth2/api/v1/device/core/authkey/exchange";
constexpr char kGrantPath[] = "/migration/api/v1/device/core/authorization_code/grant";
constexpr char kLogoutPath[] = "/device/api/logout";
constexpr char kClientName[] = "login";
constexpr char kLoginAction[] = "zomi/login";
constexpr int kExecFlags = 0xBB;
constexpr int kLogType = 2;
constexpr int kLogLevel = 1;
constexpr unsigned int kLoggedOutEvent = 0x13A00002;
constexpr int kUnauthorized = 401;

// The place of this line in the log is fixed: administrators' filters know it.
constexpr LogSite kExchangeSite{"account_pkce_service", 107};

// Posts `form` to the account server.
HttpAnswer PostToAccount(const char* path, const std::string& client_id, HttpForm form) {
  return Post({.url = ServerInfo().AccountHost() + path,
               .user_agent = HosService::GetUserAgent(),
               .header_sets = {{{"X-Client-ID", client_id}}},
               .form = std::move(form)});
}

HttpForm GrantForm(const Json::Value& config, const CodePair& pair) {
  const auto text = [&config](const char* name) { return config[name].asString(); };
  HttpForm form = {{"client_id", text("client_id")},
                   {"redirect_url", text("login_redirect_uri")},
                   {"state", std::to_string(std::time(nullptr))},
                   {"code_challenge", pair.challenge},
                   {"auth_key", User().Get(record::kHsAuthKey)}};
  std::vector<std::string> scopes;
  boost::algorithm::split(scopes, text("scope"), boost::algorithm::is_any_of(" "),
                          boost::algorithm::token_compress_on);
  for (const std::string& scope : scopes) form.emplace_back("scopes[]", scope);
  return form;
}

// The authorization code in the grant's answer.
std::string ReadGrantCode(const HttpAnswer& answer) {
  CheckTransfer("grant by authkey", answer);
  if (answer.status == kUnauthorized) {
    throw ZomiException(kAuthFailed, AnswerText("auth on grant by authkey", answer));
  }
  CheckStatus("grant by authkey", answer);
  Json::Value response;
  ParseJson(answer.text, response);
  const auto code = json::FilledTextMember(response, "grant_code");
  if (!code) throw ZomiException(kBadResponse, AnswerText("parse grant by authkey resp", answer));
  return *code;
}

void CheckLogout(const HttpAnswer& answer) {
  CheckTransfer("logout", answer);
  CheckStatus("logout", answer);
  Json::Value response;
  ParseJson(answer.text, response);
  if (!response.isObject()) {
    throw ZomiException(kWrongJsonFormat, AnswerText("parse logout resp", answer));
  }
  if (!response.isMember("code")) return;
  const auto word = json::TextMember(response, "code");
  const std::uint32_t code = ServerStatusToErrorCode(word ? word->c_str() : nullptr);
  if (code != kSuccess) throw ZomiException(code, "Failed to logout with success code");
}

// Whether the answer has the member, of whatever type, and it is not empty.
bool IsFilled(const Json::Value& answer, const char* name) {
  const Json::Value& member = answer[name];
  return !member.isNull() && !(member.isString() && member.asString().empty());
}

// Empty when the record has none or cannot be read.
std::string StoredAuthKey() {
  try {
    return User().Get(record::kHsAuthKey);
  } catch (const ZomiException&) {
    return "";
  }
}

std::optional<LinkIdentity> CurrentLink() { return LinkLock().Link(); }

void StoreIdentity(RecordChange& change, const Json::Value& identity,
                   const std::optional<LinkIdentity>& link_before) {
  const auto id = json::FilledTextMember(identity, "user_id");
  const auto auth_key = json::FilledTextMember(identity, "auth_key");
  if (!id || !auth_key) throw ZomiException(kBadResponse);
  const LinkIdentity link = {*id, *auth_key};
  const LinkLock lock;
  if (IsEndedLink(lock, link, link_before)) throw LinkChanged(Here());
  const ServerInfo servers;
  const std::string account_host = servers.AccountHost();
  const std::string identity_host = servers.IdentityHost();
  change.Set(lock, record::kAccountHost, account_host);
  change.Set(lock, record::kIdentityHost, identity_host);
  WriteAccountLink(lock, change, link);
}

// The profile query fills the rest of the record; it needs the identity to be there.
std::string QueryEmail(RecordChange& change) {
  Json::Value account(Json::objectValue);
  if (ZomiAccountQueryInfo(account, Refresh::kYes, Quick::kYes, change) < 0) {
    const std::uint32_t code = LastErrorCode();
    throw ZomiException(code == kSuccess ? kGenericError : code);
  }
  return account["email"].asString();
}

void StoreAccount(const Json::Value& identity, const std::optional<LinkIdentity>& link_before) {
  RecordChange change(Removal::kIsUndone);
  try {
    StoreIdentity(change, identity, link_before);
    LogError(Here(), "Logged in Veltrix Account as [%s]", QueryEmail(change).c_str());
  } catch (const ZomiException&) {
    change.Undo(LinkLock());
    throw;
  }
}

// Those of every client.
void ClearTokens(const LinkLock& lock) {
  const std::string command =
      std::string("/bin/rm -f ") + account_files::kFolder + "*" + account_files::kTokenFileEnd;
  if (KLIBCExecl("/bin/sh", kExecFlags, "-c", command.c_str(), static_cast<char*>(nullptr)) < 0) {
    LogError(Here(), "Failed to clear token files");
  }
  RemoveAccountLeftovers(lock);
  base::FlushFolderOf(
      account_files::kRecord);  // or a power failure brings the record or the keys back
}

void CheckLink(const LinkLock& lock, const std::optional<LinkIdentity>& link) {
  if (lock.Link() != link) throw LinkChanged(Here());
}

void Clear(const LinkLock& lock) {
  const User user;
  if (user.HasAccount()) {
    LogError(Here(), "Logged out Veltrix Account: %s", user.Get(record::kZomiId).c_str());
  } else {
    LogError(Here(), "Logged out Veltrix Account");
  }
  (void)ZomiConfigRemove();
  (void)RemoveReportJob();
  (void)KIVOLogSet1(kLogType, kLogLevel, kLoggedOutEvent, "", "", "", "");
  ClearTokens(lock);
}

}  // namespace

AccountPkceServiceImpl::AccountPkceServiceImpl() : client_(kClientName) {
  client_.SetConfig(LoadPkceLoginConfig());
}

void AccountPkceServiceImpl::GrantByAuthKey() { Grant(client_.RequestFor(CurrentLink())); }

void AccountPkceServiceImpl::Grant(const TokenRequest& asked_for) {
  const Json::Value config = LoadPkceLoginConfig();
  const CodePair pair = MakeCodePair();
  const HttpAnswer answer =
      PostToAccount(kGrantPath, config["client_id"].asString(), GrantForm(config, pair));
  client_.PkceLogin(ReadGrantCode(answer), pair.verifier, config["login_redirect_uri"].asString(),
                    asked_for);
}

Json::Value AccountPkceServiceImpl::ExchangeAuthKey(const std::string& token) {
  // The second set of headers takes the place of the first: the account server wants the token
  // alone.
  const HttpAnswer answer = Post({.url = ServerInfo().AccountHost() + kExchangePath,
                                  .user_agent = HosService::GetUserAgent(),
                                  .header_sets = {{{"X-Client-ID", GetLoginClientId()}},
                                                  {{"Authorization", "Bearer " + token}}},
                                  .form = std::nullopt});
  CheckTransfer("exchange authkey", answer);
  CheckStatus("exchange authkey", answer);
  Json::Value response;
  ParseJson(answer.text, response);
  if (!response.isObject() || !IsFilled(response, "user_id") || !IsFilled(response, "auth_key")) {
    LogError(kExchangeSite, "Failed to ExchangeAuthKey by [%s], code=%d, resp=%s", token.c_str(),
             answer.status, answer.text.c_str());
    throw ZomiException(kNoToken, AnswerText("parse exchange authkey resp", answer));
  }
  return response;
}

void AccountPkceServiceImpl::Login(const std::string& code, const std::string& code_verifier,
                                   const std::string& redirect_uri) {
  const LoginLock one_at_a_time(login_waits_);
  const Link link_before = CurrentLink();
  RunPluginAction4(kLoginAction);
  client_.PkceLogin(code, code_verifier, redirect_uri);
  StoreAccount(ExchangeAuthKey(GetAccessTokenWithRescue()), link_before);
  RunPluginAction5(kLoginAction);
}

void AccountPkceServiceImpl::Logout(AccessToken access_token) {
  EndLink(CurrentLink(), access_token);
}

void AccountPkceServiceImpl::LogoutLink(const LinkIdentity& link, AccessToken access_token) {
  EndLink(link, access_token);
}

void AccountPkceServiceImpl::EndLink(const Link& link, AccessToken access_token) {
  HttpForm form;
  {
    const LinkLock lock;
    CheckLink(lock, link);
    const User user;
    if (!user.HasAccount()) {
      Clear(lock);
      return;
    }
    form = {{"serial_no", HosService::GetSerialNumber()},
            {"id", user.Get(record::kZomiIdSerial)},
            {"auth_key", user.Get(record::kHsAuthKey)}};
  }
  if (access_token == AccessToken::kInclude) {
    const std::string token = GetTokenWithRescue(&PkceClient::GetAccessToken, link);
    CheckLink(LinkLock(), link);  // the token may have been waited for, and be another link's
    if (!token.empty()) form.emplace_back("access_token", token);
  }
  CheckLogout(PostToAccount(kLogoutPath, GetLoginClientId(), std::move(form)));
  const LinkLock lock;
  if (!link || !lock.HoldsAnother(*link)) Clear(lock);
}

void AccountPkceServiceImpl::ClearLocalAccount() { Clear(LinkLock()); }

std::string AccountPkceServiceImpl::GetAccessTokenWithRescue() {
  return GetTokenWithRescue(&PkceClient::GetAccessToken, CurrentLink());
}

std::string AccountPkceServiceImpl::GetIdTokenWithRescue() {
  return GetTokenWithRescue(&PkceClient::GetIdToken, CurrentLink());
}

// What is granted takes the place of the tokens that are here now, not of others that come while
// these are tried.
std::string AccountPkceServiceImpl::GetTokenWithRescue(TokenReader read, const Link& link) {
  const TokenRequest asked_for = client_.RequestFor(link);
  if (!client_.HasToken() && !StoredAuthKey().empty()) Grant(asked_for);
  try {
    return (client_.*read)();
  } catch (const ZomiException& failure) {
    if (failure.code() != kAuthFailed) throw;
  }
  Rescue(asked_for);
  return (client_.*read)();
}

// Without the access token, because reading it is what failed.
void AccountPkceServiceImpl::Rescue(const TokenRequest& asked_for) {
  LogError(Here(), "Rescue hos renew pkce token by authkey");
  try {
    Grant(asked_for);
    return;
  } catch (const LinkChanged&) {
    throw;
  } catch (const ZomiException&) {
    CheckLink(LinkLock(), asked_for.link);
  }
  LogError(Here(), "Failed to rescue by authkey, force logout");
  EndLink(asked_for.link, AccessToken::kOmit);
}

}  // namespace nodelink
