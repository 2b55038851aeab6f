#include "tests/interop/account_server.h"

#include "core/json.h"
#include "devcloud/state/account_json.h"

namespace interop {
namespace {

constexpr char kExchange[] = "/oauth2/api/v1/device/core/authkey/exchange";
constexpr char kQuery[] = "/device/api/user/query";
constexpr char kReport[] = "/device/api/report";

Json::Value Identity() {
  Json::Value answer;
  answer["user_id"] = "1001";
  answer["auth_key"] = "the auth key";
  return answer;
}

Json::Value Profile() {
  devcloud::Account account;
  account.email = kEmail;
  Json::Value answer = devcloud::ProfileToJson(account);
  answer["code"] = "good";
  return answer;
}

Json::Value Agreement() {
  Json::Value answer;
  answer["code"] = "good";
  return answer;
}

devcloud::Response Json(const Json::Value& answer) {
  return {.status = 200, .body = nodelink::json::toString(answer)};
}

devcloud::Response Answer(const devcloud::Request& request) {
  if (request.path == kExchange) return Json(Identity());
  if (request.path == kQuery) return Json(Profile());
  if (request.path == kReport) return Json(Agreement());
  return {.status = 404};
}

}  // namespace

AccountServer::AccountServer(const devcloud::Authority& authority)
    : server_(
          {.address = "127.0.0.2",
           .port = 443,
           .tls = devcloud::TlsSettings{authority.Issue({.names = {"account.veltrix.example"}})}},
          Answer) {}

std::vector<std::string> AccountServer::BearerTokens() const {
  const std::string scheme = "Bearer ";
  std::vector<std::string> tokens;
  for (const devcloud::Request& request : server_.requests()) {
    const std::string value = request.HeaderOr("Authorization");
    if (request.path == kExchange && value.rfind(scheme, 0) == 0) {
      tokens.push_back(value.substr(scheme.size()));
    }
  }
  return tokens;
}

}  // namespace interop
