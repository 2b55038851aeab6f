// The development cloud: account, identity, payment and cloud-service host in one HTTPS server, and
// the plain HTTP port that controls it.
//
//   devcloud::Cloud cloud({});
//   devcloud::Account account{.email = "anna@example.org"};
//   (void)cloud.store().AddAccount(account, "secret");
//   ... requests to cloud.server().Url(), trusting cloud.authority().certificate_pem()
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "devcloud/api/device_api.h"
#include "devcloud/http/certificates.h"
#include "devcloud/http/https_server.h"
#include "devcloud/http/tls_switch.h"
#include "devcloud/state/clients.h"
#include "devcloud/state/faults.h"
#include "devcloud/state/held_answers.h"
#include "devcloud/state/request_log.h"
#include "devcloud/state/store.h"
#include "devcloud/state/token_store.h"

namespace devcloud {

// The names that the certificate covers unless others are given.
[[nodiscard]] std::vector<std::string> DefaultHosts();

// Seconds since the epoch by the system's clock.
[[nodiscard]] std::int64_t SystemSeconds();

struct CloudOptions {
  std::string address = "127.0.0.1";
  std::uint16_t port = 0;                     // 0: any free one
  std::string control_address = "127.0.0.1";  // a loopback address
  std::uint16_t control_port = 0;
  std::string state_folder = {};  // must exist; empty: nothing is kept
  std::vector<std::string> hosts = DefaultHosts();
  WallClock clock = SystemSeconds;
};

class Cloud {
 public:
  // Both ports listen when it returns. Throws std::runtime_error (std::system_error for addresses).
  explicit Cloud(CloudOptions options);
  ~Cloud();
  Cloud(const Cloud&) = delete;
  Cloud& operator=(const Cloud&) = delete;

  void Stop();

  [[nodiscard]] HttpsServer& server();
  [[nodiscard]] HttpsServer& control();
  [[nodiscard]] Store& store();
  [[nodiscard]] FaultBook& faults();
  [[nodiscard]] HeldAnswers& held();
  [[nodiscard]] RequestLog& log();
  [[nodiscard]] Clients& clients();
  [[nodiscard]] TokenStore& tokens();
  [[nodiscard]] const Authority& authority() const;

  // For connections accepted from now on.
  void SetTls(TlsChoice choice);
  [[nodiscard]] TlsChoice tls() const;

  // Seconds since the epoch by the cloud's own clock.
  [[nodiscard]] std::int64_t Now() const;

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace devcloud
