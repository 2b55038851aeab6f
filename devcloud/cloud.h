// The development cloud: account, identity, payment and cloud-service host in one HTTPS server, and
// the plain HTTP port that controls it.
//
//   devcloud::Cloud cloud({});
//   devcloud::Account account{.email = "anna@example.org"};
//   (void)cloud.store().AddAccount(account, "secret");
//   ... requests to cloud.server().Url(), trusting cloud.authority().certificate_pem()
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "devcloud/control/control.h"
#include "devcloud/http/certificates.h"
#include "devcloud/http/https_server.h"
#include "devcloud/http/router.h"
#include "devcloud/http/tls_switch.h"
#include "devcloud/state/cloud_state.h"

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

  [[nodiscard]] HttpsServer& server() { return server_; }
  [[nodiscard]] HttpsServer& control() { return control_server_; }
  [[nodiscard]] const Authority& authority() const { return authority_; }
  [[nodiscard]] CloudState& state() { return state_; }
  [[nodiscard]] Store& store() { return state_.store; }
  [[nodiscard]] FaultBook& faults() { return state_.faults; }
  [[nodiscard]] HeldAnswers& held() { return state_.held; }
  [[nodiscard]] RequestLog& log() { return state_.log; }
  [[nodiscard]] Clients& clients() { return state_.clients; }
  [[nodiscard]] TokenStore& tokens() { return state_.tokens; }

  // For connections accepted from now on.
  void SetTls(TlsChoice choice) { tls_.Choose(choice); }

 private:
  [[nodiscard]] Response Answer(const Request& request);
  [[nodiscard]] Response AnswerWithFaults(const Request& request,
                                          const std::optional<FaultRule>& rule) const;

  CloudOptions options_;
  Authority authority_;
  CloudState state_;
  Router router_;
  HttpsServer server_;
  TlsSwitch tls_;
  Control control_;
  HttpsServer control_server_;
};

}  // namespace devcloud
