// The control interface: JSON over plain HTTP for scripts and tests, and the console's pages for
// people. It belongs on a loopback address only, as it asks nobody who they are.
#pragma once

#include "devcloud/cloud.h"
#include "devcloud/console/console.h"
#include "devcloud/http/json_fields.h"
#include "devcloud/http/router.h"

namespace devcloud {

class Control {
 public:
  // `cloud` must outlive the object.
  explicit Control(Cloud& cloud);

  [[nodiscard]] Response Answer(const Request& request) const;

 private:
  using Parameters = std::vector<std::string>;
  using Method = Response (Control::*)(const Request&, const Parameters&);

  // Revokes or expires the token or family of that id; false when there is none.
  using TokenChange = bool (TokenStore::*)(std::int64_t id);

  void Add(const char* verb, const char* pattern, Method method);
  void AddTokenChange(const char* pattern, TokenChange change);
  void AddAccountRoutes();
  void AddDeviceRoutes();
  void AddServerRoutes();
  void AddTokenRoutes();

  [[nodiscard]] Response ListAccounts(const Request& request, const Parameters& parameters);
  [[nodiscard]] Response AddAccount(const Request& request, const Parameters& parameters);
  [[nodiscard]] Response ShowAccount(const Request& request, const Parameters& parameters);
  [[nodiscard]] Response ChangeAccount(const Request& request, const Parameters& parameters);
  [[nodiscard]] Response RemoveAccount(const Request& request, const Parameters& parameters);

  [[nodiscard]] Response ListDevices(const Request& request, const Parameters& parameters);
  [[nodiscard]] Response AddDevice(const Request& request, const Parameters& parameters);
  [[nodiscard]] Response ShowDevice(const Request& request, const Parameters& parameters);
  [[nodiscard]] Response ChangeDevice(const Request& request, const Parameters& parameters);
  [[nodiscard]] Response RemoveDevice(const Request& request, const Parameters& parameters);
  [[nodiscard]] Response LinkDevice(const Request& request, const Parameters& parameters);
  [[nodiscard]] Response UnlinkDevice(const Request& request, const Parameters& parameters);

  [[nodiscard]] Response ListFaults(const Request& request, const Parameters& parameters);
  [[nodiscard]] Response AddFault(const Request& request, const Parameters& parameters);
  [[nodiscard]] Response RemoveFault(const Request& request, const Parameters& parameters);
  [[nodiscard]] Response ClearFaults(const Request& request, const Parameters& parameters);

  [[nodiscard]] Response ListHeld(const Request& request, const Parameters& parameters);
  [[nodiscard]] Response ReleaseHeld(const Request& request, const Parameters& parameters);
  [[nodiscard]] Response ReleaseAllHeld(const Request& request, const Parameters& parameters);

  [[nodiscard]] Response ListRequests(const Request& request, const Parameters& parameters);
  [[nodiscard]] Response ClearRequests(const Request& request, const Parameters& parameters);

  [[nodiscard]] Response ShowTls(const Request& request, const Parameters& parameters);
  [[nodiscard]] Response ChangeTls(const Request& request, const Parameters& parameters);
  [[nodiscard]] Response ShowAuthority(const Request& request, const Parameters& parameters);

  [[nodiscard]] Response ListClients(const Request& request, const Parameters& parameters);
  [[nodiscard]] Response ShowClient(const Request& request, const Parameters& parameters);
  [[nodiscard]] Response ChangeClient(const Request& request, const Parameters& parameters);
  [[nodiscard]] Response ListFamilies(const Request& request, const Parameters& parameters);
  [[nodiscard]] Response ListTokens(const Request& request, const Parameters& parameters);

  // Throw NotFound.
  [[nodiscard]] Client GetClient(const std::string& client_id) const;
  [[nodiscard]] Account GetAccount(const std::string& id_or_email) const;
  [[nodiscard]] Device GetDevice(const std::string& serial) const;
  [[nodiscard]] Json::Value DeviceWithLink(const Device& device) const;

  Cloud& cloud_;
  console::Console console_;
  Router router_;
};

}  // namespace devcloud
