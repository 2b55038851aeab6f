#include "devcloud/http/listener.h"

#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <memory>
#include <system_error>

namespace devcloud {
namespace {

struct AddressDeleter {
  void operator()(addrinfo* list) const { ::freeaddrinfo(list); }
};
using AddressPtr = std::unique_ptr<addrinfo, AddressDeleter>;

AddressPtr Resolve(const std::string& address, const std::string& port) {
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV | AI_PASSIVE;
  addrinfo* list = nullptr;
  return AddressPtr(::getaddrinfo(address.c_str(), port.c_str(), &hints, &list) == 0 ? list
                                                                                     : nullptr);
}

[[noreturn]] void ThrowCannotListen(int error, const std::string& address,
                                    const std::string& port) {
  throw std::system_error(error, std::generic_category(),
                          "cannot listen on " + address + " port " + port);
}

}  // namespace

base::UniqueFd Listen(const std::string& address, std::uint16_t port) {
  const std::string port_text = std::to_string(port);
  const AddressPtr where = Resolve(address, port_text);
  if (where == nullptr) ThrowCannotListen(EADDRNOTAVAIL, address, port_text);
  base::UniqueFd socket(
      ::socket(where->ai_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, where->ai_protocol));
  const int on = 1;
  if (!socket || ::setsockopt(socket.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
      ::bind(socket.get(), where->ai_addr, where->ai_addrlen) != 0 ||
      ::listen(socket.get(), SOMAXCONN) != 0) {
    ThrowCannotListen(errno, address, port_text);
  }
  return socket;
}

std::uint16_t BoundPort(int socket) {
  sockaddr_storage own{};
  socklen_t size = sizeof own;
  if (::getsockname(socket, reinterpret_cast<sockaddr*>(&own), &size) != 0) return 0;
  return ntohs(reinterpret_cast<const sockaddr_in*>(&own)->sin_port);
}

bool IsLoopback(const std::string& address) {
  const AddressPtr where = Resolve(address, "0");
  if (where == nullptr) return false;
  if (where->ai_family == AF_INET) {
    const auto* v4 = reinterpret_cast<const sockaddr_in*>(where->ai_addr);
    return (ntohl(v4->sin_addr.s_addr) >> 24U) == 127U;
  }
  if (where->ai_family != AF_INET6) return false;
  const auto* v6 = reinterpret_cast<const sockaddr_in6*>(where->ai_addr);
  return IN6_IS_ADDR_LOOPBACK(&v6->sin6_addr) != 0;
}

}  // namespace devcloud
