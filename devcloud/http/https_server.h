// A small HTTP/1.1 server, over TLS or plain, for development and tests. One thread per connection.
//
//   const auto authority = devcloud::Authority::Make("test authority");
//   devcloud::HttpsServer server({.tls = devcloud::TlsSettings{authority.Issue({})}},
//                                [](const devcloud::Request&) { return devcloud::Response{}; });
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "devcloud/http/http_message.h"
#include "devcloud/http/request_reader.h"
#include "devcloud/http/tls.h"

namespace devcloud {

// Whether several connections may be inside the handler at once. A delay or slow delivery of an
// answer happens outside the handler and holds up nobody else in either case.
enum class HandlerCalls { kOneAtATime, kParallel };

struct ServerOptions {
  std::string address = "127.0.0.1";    // numeric, IPv4 or IPv6
  std::uint16_t port = 0;               // 0: any free one
  std::optional<TlsSettings> tls = {};  // without: plain HTTP
  HandlerCalls handler_calls = HandlerCalls::kOneAtATime;
  std::chrono::milliseconds idle_timeout{30000};
  RequestLimits limits = {};
  std::size_t max_connections = 256;  // further ones are closed at once
  std::size_t max_recorded = 10000;   // requests kept for requests(); the oldest go first
};

class HttpsServer {
 public:
  // Listens when it returns. Throws std::system_error (address) or std::runtime_error
  // (certificate). A handler that throws is answered with status 500.
  HttpsServer(ServerOptions options, Handler handler);
  // Stops. Never destroy or stop a server from inside its handler.
  ~HttpsServer();
  HttpsServer(const HttpsServer&) = delete;
  HttpsServer& operator=(const HttpsServer&) = delete;

  // Ends every connection at once, whatever it is doing, and returns when all threads are gone.
  void Stop();

  [[nodiscard]] std::uint16_t port() const;
  // "https://HOST:PORT" or "http://HOST:PORT", without the port where it is the scheme's own.
  [[nodiscard]] std::string Url(const std::string& host = "127.0.0.1") const;

  // The certificate and versions for connections accepted from now on. Throws std::runtime_error.
  void SetTls(const TlsSettings& settings);

  // The requests so far, in the order in which they were complete. A request is recorded before it
  // is handled.
  [[nodiscard]] std::vector<Request> requests() const;
  void ClearRequests();
  // Waits until at least `count` requests have come since the start or the last ClearRequests();
  // false when they have not within the limit.
  [[nodiscard]] bool WaitForRequests(
      std::size_t count, std::chrono::milliseconds limit = std::chrono::seconds(20)) const;

  // Connections accepted, and those among them whose TLS handshake failed.
  [[nodiscard]] std::size_t connections() const;
  [[nodiscard]] std::size_t failed_handshakes() const;
  [[nodiscard]] bool WaitForFailedHandshakes(
      std::size_t count, std::chrono::milliseconds limit = std::chrono::seconds(20)) const;

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace devcloud
