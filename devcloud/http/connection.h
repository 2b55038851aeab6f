// One accepted connection, plain or TLS, whose every wait is bounded by an idle time-out and ends
// at once when the server stops.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "base/unique_fd.h"
#include "devcloud/http/event.h"
#include "devcloud/http/openssl_handles.h"

namespace devcloud {

class Connection {
 public:
  // `socket` is non-blocking; `stop_fd` (borrowed) becomes readable when the server stops.
  Connection(base::UniqueFd socket, int stop_fd, std::chrono::milliseconds idle_timeout);

  // The TLS handshake. False when the peer refused, went away or fell silent.
  [[nodiscard]] bool Handshake(SSL_CTX* context);

  // Reads at least one byte; 0 when nothing more will come.
  [[nodiscard]] std::size_t Read(char* data, std::size_t size);

  // Writes all of it; false when the peer does not take it.
  [[nodiscard]] bool Write(std::string_view data);

  // Waits; false when the server stops or the peer goes away meanwhile.
  [[nodiscard]] bool Pause(std::chrono::milliseconds duration) const;

  // Waits for as long as it takes; false when the server stops or the peer goes away meanwhile.
  [[nodiscard]] bool WaitFor(const Event& event) const;

  // Says goodbye, then takes in (and drops) what the peer still sends, within limits: closing over
  // unread bytes would reset the connection and destroy the answer on its way.
  void CloseGently();

  [[nodiscard]] std::string ServerName() const;
  [[nodiscard]] std::string TlsVersionName() const;
  [[nodiscard]] std::uint16_t PeerPort() const;

 private:
  using Clock = std::chrono::steady_clock;

  template <typename Step>
  std::ptrdiff_t Drive(short plain_event, Step step);
  [[nodiscard]] short WantedEvents(std::ptrdiff_t result, short plain_event) const;
  [[nodiscard]] bool Wait(short events, Clock::time_point deadline) const;
  std::ptrdiff_t ReadStep(char* data, std::size_t size);
  std::ptrdiff_t WriteStep(std::string_view data);

  base::UniqueFd socket_;
  int stop_fd_;
  std::chrono::milliseconds idle_timeout_;
  SslPtr ssl_;
};

}  // namespace devcloud
