// An OpenID Connect server that others built, at the identity host's name.
#pragma once

#include <json/value.h>

#include <optional>
#include <string>

#include "devcloud/http/certificates.h"
#include "lab/process.h"

namespace interop {

// Why the server cannot run on this machine; nothing when it can.
std::optional<std::string> WhyUnavailable();

class Provider {
 public:
  // Serves the finished client configuration `config` on 127.0.0.1:443 when it returns. Throws
  // std::runtime_error or std::system_error when the server does not start.
  Provider(const devcloud::Authority& authority, const Json::Value& config);

  // Ends the server. Gives what its token endpoint answered in its life, a line for each: "granted
  // TYPE" or "refused TYPE: ERROR", where TYPE is the grant type.
  std::string Stop();

 private:
  lab::BackgroundProcess process_;
};

}  // namespace interop
