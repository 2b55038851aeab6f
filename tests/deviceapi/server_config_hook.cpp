#include "deviceapi/server_config_hook.h"

#include "kivo/zomi_server_config.h"

bool& ServerConfigFails() {
  static bool fails = false;
  return fails;
}

extern "C" {

// The linker's --wrap sends the calls here.
// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,readability-identifier-naming)
int __real_KIVOZOMIServerConfigGet(KIVOZOMI_SERVER_CONFIG* config);

int __wrap_KIVOZOMIServerConfigGet(KIVOZOMI_SERVER_CONFIG* config) {
  return ServerConfigFails() ? -1 : __real_KIVOZOMIServerConfigGet(config);
}
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,readability-identifier-naming)
}
