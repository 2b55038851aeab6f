// The control interface: JSON over plain HTTP for scripts and tests, and the console's pages for
// people. It belongs on a loopback address only, as it asks nobody who they are.
#pragma once

#include <string>
#include <vector>

#include "devcloud/console/console.h"
#include "devcloud/http/router.h"
#include "devcloud/http/tls_switch.h"
#include "devcloud/state/cloud_state.h"

namespace devcloud {

class Control {
 public:
  // `state` and `tls` must outlive the object. `paths` are those that the cloud serves.
  Control(CloudState& state, TlsSwitch& tls, std::vector<std::string> paths);

  [[nodiscard]] Response Answer(const Request& request) const;

 private:
  console::Console console_;
  Router router_;
};

}  // namespace devcloud
