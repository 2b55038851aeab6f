// Listening sockets.
#pragma once

#include <cstdint>
#include <string>

#include "base/unique_fd.h"

namespace devcloud {

// A non-blocking listening TCP socket. `address` is numeric; port 0 takes a free one. Throws
// std::system_error.
[[nodiscard]] base::UniqueFd Listen(const std::string& address, std::uint16_t port);

// The port that a socket is bound to.
[[nodiscard]] std::uint16_t BoundPort(int socket);

// True for a numeric address of the loopback network.
[[nodiscard]] bool IsLoopback(const std::string& address);

}  // namespace devcloud
