// What the tests of the servers share.
#pragma once

#include <string>

#include "account/server_info.h"
#include "tests/support/platform_fixture.h"

namespace nodelink {

class ServersTest : public PlatformTest {
 protected:
  static constexpr char kDefaults[] = "/etc.defaults/kivoinfo.conf";

  ServersTest() { SetDefaults(""); }

  static void SetDefaults(const std::string& content) { test_files::Write(kDefaults, content); }

  // Makes the read of `key` throw, in the place of whatever may throw there.
  template <typename Exception>
  static void ThrowOnRead(const std::string& key, const Exception& exception) {
    platform().OnCall("KLIBCFileGetKeyValue", [key, code = exception](const fake_hos::Call& call) {
      if (call.args.at(1) == key) throw Exception(code);
    });
  }

  ServerInfo servers_;
};

}  // namespace nodelink
