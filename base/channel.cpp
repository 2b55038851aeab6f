#include "base/channel.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstring>

namespace base {
namespace {

using Length = std::uint32_t;

// The milliseconds until then, as poll takes them.
int Left(const Deadline& deadline) {
  if (!deadline) return -1;
  const auto left =
      std::chrono::ceil<std::chrono::milliseconds>(*deadline - std::chrono::steady_clock::now());
  return static_cast<int>(std::clamp<std::int64_t>(left.count(), 0, INT_MAX));
}

// Waits until `fd` is ready for `events`. What was said before the end of `process` still counts.
bool WaitFor(int fd, short events, const Deadline& deadline, int process) {
  std::array<pollfd, 2> watched = {pollfd{fd, events, 0}, pollfd{process, POLLIN, 0}};
  int ready = 0;
  do {
    ready = poll(watched.data(), watched.size(), Left(deadline));
  } while (ready < 0 && errno == EINTR);
  if (ready == 0) {
    errno = ETIMEDOUT;
  } else if (ready > 0 && watched[0].revents == 0) {
    errno = EPIPE;
  }
  return ready > 0 && watched[0].revents != 0;
}

bool IsWorthAnotherTry() { return errno == EAGAIN || errno == EINTR; }

bool SendAll(int fd, std::string_view bytes, const Deadline& deadline) {
  while (!bytes.empty()) {
    if (!WaitFor(fd, POLLOUT, deadline, -1)) return false;
    const ssize_t count = send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (count < 0 && !IsWorthAnotherTry()) return false;
    bytes.remove_prefix(static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
  }
  return true;
}

bool ReceiveAll(int fd, char* bytes, std::size_t size, const Deadline& deadline, int process) {
  while (size > 0) {
    if (!WaitFor(fd, POLLIN, deadline, process)) return false;
    const ssize_t count = recv(fd, bytes, size, MSG_DONTWAIT);
    if (count == 0) {
      errno = EPIPE;
      return false;
    }
    if (count < 0 && !IsWorthAnotherTry()) return false;
    const auto taken = static_cast<std::size_t>(std::max<ssize_t>(count, 0));
    bytes += taken;
    size -= taken;
  }
  return true;
}

}  // namespace

bool SendFrame(int fd, std::string_view message, Deadline deadline) {
  const auto length = static_cast<Length>(message.size());
  std::array<char, sizeof length> head{};
  std::memcpy(head.data(), &length, sizeof length);
  return SendAll(fd, {head.data(), head.size()}, deadline) && SendAll(fd, message, deadline);
}

std::optional<std::string> ReceiveFrame(int fd, std::size_t longest, Deadline deadline,
                                        int process) {
  Length length = 0;
  std::array<char, sizeof length> head{};
  if (!ReceiveAll(fd, head.data(), head.size(), deadline, process)) return std::nullopt;
  std::memcpy(&length, head.data(), sizeof length);
  if (length > longest) {
    errno = EMSGSIZE;
    return std::nullopt;
  }
  std::string message(length, '\0');
  if (!ReceiveAll(fd, message.data(), message.size(), deadline, process)) return std::nullopt;
  return message;
}

}  // namespace base
