// The OAuth clients that the cloud knows.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "devcloud/state/database.h"

namespace devcloud {

inline constexpr char kLoginClient[] = "hos-device-login";
inline constexpr char kRegisterClient[] = "hos-device-register";
inline constexpr char kLoginCallbackPath[] = "/oauth2/v1/login_callback";
inline constexpr char kLogoutCallbackPath[] = "/oauth2/v1/logout_callback";

struct Client {
  std::string client_id = {};
  std::int64_t access_token_seconds = 3600;
  std::int64_t refresh_token_seconds = std::int64_t{30} * 24 * 3600;
  // Registered addresses besides the callback pages of the cloud's own hosts.
  std::vector<std::string> redirect_uris = {};
  std::vector<std::string> logout_redirect_uris = {};
};

class Clients {
 public:
  // Makes the two clients unless they exist. Every client may use the callback pages of `hosts`,
  // the cloud's own names, on any port.
  Clients(Database& database, std::vector<std::string> hosts);

  [[nodiscard]] std::optional<Client> Find(const std::string& client_id);
  [[nodiscard]] std::vector<Client> List();
  void Save(const Client& client);

  [[nodiscard]] bool MayRedirect(const Client& client, const std::string& uri) const;
  [[nodiscard]] bool MayRedirectAfterLogout(const Client& client, const std::string& uri) const;

 private:
  [[nodiscard]] bool IsOwn(const std::string& uri, const std::string& path) const;

  Database& database_;
  std::vector<std::string> hosts_;
};

}  // namespace devcloud
