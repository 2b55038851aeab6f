// The identity host's sign-in page, which gives a browser the code to bring back.
#pragma once

#include "devcloud/http/router.h"
#include "devcloud/state/cloud_state.h"

namespace devcloud {

// Adds the paths to the router, which `state` must outlive.
void AddSignIn(Router& router, CloudState& state);

}  // namespace devcloud
