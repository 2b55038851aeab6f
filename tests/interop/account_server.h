// The vendor's account server, as little of it as a login and a report need.
#pragma once

#include <string>
#include <vector>

#include "devcloud/http/certificates.h"
#include "devcloud/http/https_server.h"

namespace interop {

inline constexpr char kEmail[] = "anna@example.org";

class AccountServer {
 public:
  // Serves on 127.0.0.2:443 for the account host's name.
  explicit AccountServer(const devcloud::Authority& authority);

  // The bearer tokens that were traded for the account's auth key.
  std::vector<std::string> BearerTokens() const;

 private:
  devcloud::HttpsServer server_;
};

}  // namespace interop
