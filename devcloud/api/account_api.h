// The account host's requests of signed-in devices: auth key for token, code for auth key, logout.
#pragma once

#include <string>

#include "devcloud/http/router.h"
#include "devcloud/state/cloud_state.h"

namespace devcloud {

// Adds the paths to the router, which `state` must outlive.
void AddAccountApi(Router& router, CloudState& state);

// The value of the scope's first word "NAME:VALUE", empty without one. A scope names the device
// that it is for with "sn:SERIAL" and "mac:ADDRESS".
[[nodiscard]] std::string ScopeValue(const std::string& scope, const std::string& name);

}  // namespace devcloud
