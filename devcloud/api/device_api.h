// The account host's device API and the cloud-service host's key registration.
#pragma once

#include <optional>

#include "devcloud/http/form.h"
#include "devcloud/http/router.h"
#include "devcloud/state/cloud_state.h"

namespace devcloud {

// Adds the paths to the router, which `state` must outlive.
void AddDeviceApi(Router& router, CloudState& state);

// The link that the form's "id", "auth_key" and "serial_no" prove, if they do.
[[nodiscard]] std::optional<Link> FindProvenLink(Store& store, const Form& form);

}  // namespace devcloud
