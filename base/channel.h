// One end of the socket pair between a program and one that works for it.
#pragma once

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace base {

// When to stop waiting; never without one.
using Deadline = std::optional<std::chrono::steady_clock::time_point>;

// Writes `message` as a frame. False with errno set: ETIMEDOUT, EPIPE when nobody is there.
[[nodiscard]] bool SendFrame(int fd, std::string_view message, Deadline deadline = std::nullopt);

// Reads a frame of `longest` bytes at most. None with errno set: ETIMEDOUT, EPIPE at the end of the
// stream, EMSGSIZE for a longer frame. With a descriptor `process` (pidfd_open(2)) the end of that
// process is the end of the stream, whoever else may hold the other end open.
[[nodiscard]] std::optional<std::string> ReceiveFrame(int fd, std::size_t longest,
                                                      Deadline deadline = std::nullopt,
                                                      int process = -1);

}  // namespace base
