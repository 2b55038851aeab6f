// The account host's requests of signed-in devices: auth key for token, code for auth key, logout.
#pragma once

#include <optional>
#include <string>

#include "devcloud/api/device_api.h"
#include "devcloud/http/router.h"
#include "devcloud/state/clients.h"
#include "devcloud/state/store.h"
#include "devcloud/state/token_store.h"

namespace devcloud {

class AccountApi {
 public:
  // All references must outlive the object.
  AccountApi(Store& store, Clients& clients, TokenStore& tokens, DeviceApi& devices);

  // Adds the paths to the router, which must not outlive the object.
  void AddRoutes(Router& router);

 private:
  [[nodiscard]] Response ExchangeAuthKey(const Request& request);
  [[nodiscard]] Response GrantCode(const Request& request);
  [[nodiscard]] Response GrantCodeTo(const Client& client, const Form& form);
  [[nodiscard]] Response Logout(const Request& request);
  [[nodiscard]] std::string LogOut(const Form& form);

  [[nodiscard]] std::optional<Client> FindCaller(const Request& request);
  [[nodiscard]] std::optional<Link> LinkByScope(const Family& family);

  Store& store_;
  Clients& clients_;
  TokenStore& tokens_;
  DeviceApi& devices_;
};

// The value of the scope's first word "NAME:VALUE", empty without one. A scope names the device
// that it is for with "sn:SERIAL" and "mac:ADDRESS".
[[nodiscard]] std::string ScopeValue(const std::string& scope, const std::string& name);

}  // namespace devcloud
