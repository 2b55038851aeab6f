// OAuth2 client configurations. Input: the text of the file.
#include "pkce/pkce_config.h"

#include "account/server_info.h"
#include "core/error_code.h"
#include "core/json.h"
#include "core/zomi_exception.h"
#include "fuzz/property.h"
#include "lab/files.h"
#include "tests/fake_hos/fake_hos.h"

namespace {

constexpr char kPath[] = "/tmp/client.conf";

void CheckEndpoint(const Json::Value& config, const char* name, const std::string& host) {
  fuzz::Check(config[name].isString() && config[name].asString().starts_with(host),
              "endpoints stand below the vendor's servers");
}

void CheckConfig(const Json::Value& config) {
  const nodelink::ServerInfo servers;
  fuzz::Check(config.isObject() && config.size() == 8, "a configuration has eight members");
  for (const char* name : {"auth_endpoint", "token_endpoint", "end_session_endpoint"}) {
    CheckEndpoint(config, name, servers.IdentityHost());
  }
  for (const char* name : {"login_redirect_uri", "logout_redirect_uri"}) {
    CheckEndpoint(config, name, servers.AccountHost());
  }
  for (const char* name : {"client_id", "audience", "scope"}) {
    fuzz::Check(config[name].isString(), "all members are texts");
  }
  const std::string scope = config["scope"].asString();
  fuzz::Check(scope.find("$sn$") == std::string::npos && scope.find("$mac$") == std::string::npos,
              "the scope names the device");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fake_hos::platform().Reset();
  const std::string text(data, data + size);
  test_files::Write(kPath, text);
  Json::Value raw;
  const bool readable = nodelink::json::fromString(text, raw);
  try {
    CheckConfig(nodelink::LoadPkceConfig(kPath));
    fuzz::Check(readable, "only JSON makes a configuration");
  } catch (const nodelink::ZomiException& failure) {
    fuzz::Check(!readable && failure.code() == nodelink::kWrongJsonFormat,
                "what is no JSON is called so");
  }
  return 0;
}
