#include "devcloud/http/connection.h"

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <limits>
#include <utility>

namespace devcloud {
namespace {

using std::chrono::duration_cast;
using std::chrono::milliseconds;

constexpr milliseconds kGoodbyeTime{1000};
constexpr std::size_t kGoodbyeBytes = std::size_t{4} * 1024 * 1024;

int PollTimeout(milliseconds left) {
  return static_cast<int>(
      std::clamp<std::int64_t>(left.count(), 0, std::numeric_limits<int>::max()));
}

int SslSize(std::size_t size) {
  return static_cast<int>(std::min<std::size_t>(size, std::numeric_limits<int>::max()));
}

}  // namespace

Connection::Connection(base::UniqueFd socket, int stop_fd, milliseconds idle_timeout)
    : socket_(std::move(socket)), stop_fd_(stop_fd), idle_timeout_(idle_timeout) {}

bool Connection::Wait(short events, Clock::time_point deadline) const {
  for (;;) {
    std::array<pollfd, 2> watched{{{stop_fd_, POLLIN, 0}, {socket_.get(), events, 0}}};
    // One millisecond more, so that a fraction that is cut off does not become a busy loop.
    const auto left = duration_cast<milliseconds>(deadline - Clock::now()) + milliseconds(1);
    const int ready = ::poll(watched.data(), watched.size(), PollTimeout(left));
    if (ready < 0 && errno == EINTR) continue;
    return ready > 0 && watched[0].revents == 0;
  }
}

short Connection::WantedEvents(std::ptrdiff_t result, short plain_event) const {
  if (ssl_ == nullptr) {
    const bool later = result < 0 && (errno == EAGAIN || errno == EINTR);
    return later ? plain_event : short{0};
  }
  switch (SSL_get_error(ssl_.get(), static_cast<int>(result))) {
    case SSL_ERROR_WANT_READ: return POLLIN;
    case SSL_ERROR_WANT_WRITE: return POLLOUT;
    default: return 0;
  }
}

// Repeats a non-blocking step until it succeeds (its result is positive) or cannot any more (0).
template <typename Step>
std::ptrdiff_t Connection::Drive(short plain_event, Step step) {
  const auto deadline = Clock::now() + idle_timeout_;
  for (;;) {
    ERR_clear_error();
    const std::ptrdiff_t result = step();
    if (result > 0) return result;
    const short events = WantedEvents(result, plain_event);
    if (events == 0 || !Wait(events, deadline)) return 0;
  }
}

bool Connection::Handshake(SSL_CTX* context) {
  ssl_.reset(SSL_new(context));
  if (ssl_ == nullptr || SSL_set_fd(ssl_.get(), socket_.get()) != 1) return false;
  return Drive(POLLIN, [this] { return SSL_accept(ssl_.get()); }) > 0;
}

std::ptrdiff_t Connection::ReadStep(char* data, std::size_t size) {
  return ssl_ != nullptr ? SSL_read(ssl_.get(), data, SslSize(size))
                         : ::recv(socket_.get(), data, size, 0);
}

std::ptrdiff_t Connection::WriteStep(std::string_view data) {
  return ssl_ != nullptr ? SSL_write(ssl_.get(), data.data(), SslSize(data.size()))
                         : ::send(socket_.get(), data.data(), data.size(), MSG_NOSIGNAL);
}

std::size_t Connection::Read(char* data, std::size_t size) {
  const std::ptrdiff_t got = Drive(POLLIN, [&] { return ReadStep(data, size); });
  return static_cast<std::size_t>(got);
}

bool Connection::Write(std::string_view data) {
  while (!data.empty()) {
    const std::ptrdiff_t sent = Drive(POLLOUT, [&] { return WriteStep(data); });
    if (sent <= 0) return false;
    data.remove_prefix(static_cast<std::size_t>(sent));
  }
  return true;
}

bool Connection::Pause(milliseconds duration) const {
  std::array<pollfd, 2> watched{{{stop_fd_, POLLIN, 0}, {socket_.get(), POLLRDHUP, 0}}};
  const auto deadline = Clock::now() + duration;
  for (;;) {
    const auto left = duration_cast<milliseconds>(deadline - Clock::now());
    if (left <= milliseconds(0)) return true;
    const int ready = ::poll(watched.data(), watched.size(), PollTimeout(left));
    if (ready > 0 || (ready < 0 && errno != EINTR)) return false;
  }
}

bool Connection::WaitFor(const Event& event) const {
  for (;;) {
    std::array<pollfd, 3> watched{
        {{event.fd(), POLLIN, 0}, {stop_fd_, POLLIN, 0}, {socket_.get(), POLLRDHUP, 0}}};
    const int ready = ::poll(watched.data(), watched.size(), -1);
    if (ready < 0 && errno == EINTR) continue;
    return ready > 0 && watched[0].revents != 0;
  }
}

void Connection::CloseGently() {
  if (ssl_ != nullptr) {
    ERR_clear_error();
    (void)SSL_shutdown(ssl_.get());
  }
  if (::shutdown(socket_.get(), SHUT_WR) != 0) return;
  const auto deadline = Clock::now() + kGoodbyeTime;
  std::array<char, 16384> rest{};
  for (std::size_t total = 0; total < kGoodbyeBytes && Wait(POLLIN, deadline);) {
    const std::ptrdiff_t got = ::recv(socket_.get(), rest.data(), rest.size(), 0);
    if (got <= 0) return;
    total += static_cast<std::size_t>(got);
  }
}

std::string Connection::ServerName() const {
  const char* name =
      ssl_ == nullptr ? nullptr : SSL_get_servername(ssl_.get(), TLSEXT_NAMETYPE_host_name);
  return name == nullptr ? std::string() : name;
}

std::string Connection::TlsVersionName() const {
  return ssl_ == nullptr ? std::string() : SSL_get_version(ssl_.get());
}

std::uint16_t Connection::PeerPort() const {
  sockaddr_storage peer{};
  socklen_t size = sizeof peer;
  if (::getpeername(socket_.get(), reinterpret_cast<sockaddr*>(&peer), &size) != 0) return 0;
  // The port stands at the same place in both address families.
  return ntohs(reinterpret_cast<const sockaddr_in*>(&peer)->sin_port);
}

}  // namespace devcloud
