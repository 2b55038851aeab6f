#include "tests/interop/provider.h"

#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string_view>
#include <vector>

#include "core/json.h"

namespace interop {
namespace {

constexpr char kIssuer[] = "https://identity.veltrix.example";
constexpr char kSettings[] = "/tmp/provider.json";
constexpr std::string_view kReady = "ready";

// The path of an address at the identity host.
std::string PathOf(const Json::Value& address) {
  return address.asString().substr(std::string_view(kIssuer).size());
}

Json::Value Routes(const Json::Value& config) {
  Json::Value routes;
  routes["authorization"] = PathOf(config["auth_endpoint"]);
  routes["token"] = PathOf(config["token_endpoint"]);
  routes["end_session"] = PathOf(config["end_session_endpoint"]);
  return routes;
}

Json::Value Settings(const devcloud::Authority& authority, const Json::Value& config) {
  const devcloud::Identity identity = authority.Issue({.names = {"identity.veltrix.example"}});
  Json::Value settings;
  settings["modules"] = INTEROP_MODULES;
  settings["issuer"] = kIssuer;
  settings["address"] = "127.0.0.1";
  settings["port"] = 443;
  settings["key"] = identity.private_key_pem;
  settings["certificate"] = identity.certificate_pem;
  settings["client_id"] = config["client_id"];
  settings["login_redirect_uri"] = config["login_redirect_uri"];
  settings["routes"] = Routes(config);
  return settings;
}

std::vector<std::string> Command(const Json::Value& settings) {
  if (!nodelink::json::toFile(settings, kSettings)) {
    throw std::runtime_error("cannot write the provider's settings");
  }
  return {"node", INTEROP_PROVIDER, kSettings};
}

}  // namespace

std::optional<std::string> WhyUnavailable() {
  std::ifstream reason(INTEROP_MODULES "/unavailable");
  if (reason) return std::string(std::istreambuf_iterator<char>(reason), {});
  if (!std::ifstream(INTEROP_MODULES "/package-lock.json")) {
    return "oidc-provider is not installed; the test interop.setup does that";
  }
  return std::nullopt;
}

Provider::Provider(const devcloud::Authority& authority, const Json::Value& config)
    : process_(Command(Settings(authority, config))) {
  process_.WaitForLine(kReady);
}

std::string Provider::Stop() {
  const std::string out = process_.Terminate().out;
  return out.substr(out.find(kReady) + kReady.size() + 1);
}

}  // namespace interop
