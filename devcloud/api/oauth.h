// The identity host's token endpoint and the end of a session.
#pragma once

#include <string>

#include "devcloud/http/router.h"
#include "devcloud/state/cloud_state.h"

namespace devcloud {

struct OauthSettings {
  std::string issuer = {};           // of ID tokens: the identity host's address
  std::string signing_key_pem = {};  // P-256
};

// Adds the paths to the router, which `state` must outlive.
void AddOauth(Router& router, CloudState& state, OauthSettings settings);

}  // namespace devcloud
