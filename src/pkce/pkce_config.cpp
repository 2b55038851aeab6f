#include "pkce/pkce_config.h"

#include <boost/algorithm/string/replace.hpp>

#include "account/server_info.h"
#include "core/error_code.h"
#include "core/json.h"
#include "core/json_value.h"
#include "core/zomi_exception.h"
#include "platform/hos_service.h"

namespace nodelink {
namespace {

// The device is asked who it is whether or not the scope names it: a device that does not know
// cannot be a client.
std::string DeviceScope(std::string scope) {
  boost::algorithm::replace_all(scope, "$sn$", HosService::GetSerialNumber());
  boost::algorithm::replace_all(scope, "$mac$", HosService::GetMacAddress());
  return scope;
}

}  // namespace

Json::Value LoadPkceConfig(const std::string& path) {
  Json::Value raw;
  if (!json::fromFile(path, raw)) throw ZomiException(kWrongJsonFormat);
  return BuildPkceConfig(raw);
}

Json::Value LoadPkceRegisterConfig() { return LoadPkceConfig(kPkceRegisterConfigPath); }

Json::Value LoadPkceLoginConfig() { return LoadPkceConfig(kPkceLoginConfigPath); }

Json::Value BuildPkceConfig(const Json::Value& raw) {
  const auto text = [&raw](const char* name) { return json::TextMember(raw, name).value_or(""); };
  const std::string scope = DeviceScope(text("scope"));
  const ServerInfo servers;
  const std::string account_host = servers.AccountHost();
  const std::string identity_host = servers.IdentityHost();
  Json::Value config(Json::objectValue);
  config["client_id"] = text("client_id");
  config["scope"] = scope;
  config["audience"] = text("audience");
  config["auth_endpoint"] = identity_host + text("auth_endpoint_path");
  config["token_endpoint"] = identity_host + text("token_endpoint_path");
  config["end_session_endpoint"] = identity_host + text("end_session_endpoint_path");
  config["login_redirect_uri"] = account_host + text("login_redirect_path");
  config["logout_redirect_uri"] = account_host + text("logout_redirect_path");
  return config;
}

std::string GetLoginClientId() {
  return json::TextMember(LoadPkceLoginConfig(), "client_id").value_or("");
}

}  // namespace nodelink
