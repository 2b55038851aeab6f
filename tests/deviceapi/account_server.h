// A TLS server in the place of the account host, with an authority that the device trusts, and the
// fixture of the tests that talk to it.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "devcloud/http/certificates.h"
#include "devcloud/http/https_server.h"
#include "devcloud/http/tls_switch.h"
#include "tests/support/platform_fixture.h"

class AccountServer {
 public:
  // Listens on 127.0.0.1, on any free port unless one is given, under the names of CertifiedNames()
  // and makes its authority the only one that the device trusts.
  explicit AccountServer(std::uint16_t port = 0);

  void Answer(devcloud::Response response);
  void Answer(int status, const std::string& body);
  void Handle(devcloud::Handler handler);

  // A new certificate and TLS version for the connections from now on.
  void Show(devcloud::TlsChoice choice);

  static const std::vector<std::string>& CertifiedNames();

  devcloud::HttpsServer& https() { return server_; }
  [[nodiscard]] std::string Url(const std::string& host = "127.0.0.1") const {
    return server_.Url(host);
  }
  [[nodiscard]] std::string HostHeader() const {
    return "127.0.0.1:" + std::to_string(server_.port());
  }
  [[nodiscard]] std::vector<devcloud::Request> requests() const { return server_.requests(); }

  // The one request that came.
  [[nodiscard]] devcloud::Request OnlyRequest() const;

 private:
  const devcloud::Authority authority_;
  std::mutex mutex_;  // of handler_, which connections' threads call
  devcloud::Handler handler_;
  devcloud::HttpsServer server_;
};

class DeviceApiTest : public PlatformTest {
 protected:
  DeviceApiTest();

  // What the sender did, in order: "perform", "sleep 1", "IPRESOLVE=0".
  [[nodiscard]] std::vector<std::string> Steps() const { return steps_; }
  [[nodiscard]] int Attempts() const;

  // The results of the attempts in their order, in the place of real transfers; CURLE_OK and the
  // attempts after the last one are real ones.
  void ScriptAttempts(std::vector<CURLcode> results);

  // Every option that is set, as "NAME=VALUE"; fails the one named by FailOption.
  [[nodiscard]] std::vector<std::string> Options() const { return options_; }
  void FailOption(CURLoption option) { failing_option_ = option; }

  AccountServer server_;

 private:
  std::optional<CURLcode> OnOption(CURLoption option, const interpose::CurlValue& value);
  std::optional<CURLcode> OnPerform();

  std::vector<std::string> steps_;
  std::vector<std::string> options_;
  std::vector<CURLcode> script_;
  CURLoption failing_option_ = CURLOPT_LASTENTRY;
};

// The code that a flow under test has left alone.
inline constexpr std::uint32_t kUntouchedCode = 77;
