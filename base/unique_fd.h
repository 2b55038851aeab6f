// Owner of a file descriptor.
#pragma once

#include <unistd.h>

#include <utility>

namespace base {

class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) : fd_(fd) {}
  UniqueFd(UniqueFd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;
  ~UniqueFd() { (void)Close(); }

  explicit operator bool() const { return fd_ >= 0; }
  int get() const { return fd_; }

  // Gives the descriptor away; the caller closes it.
  [[nodiscard]] int Release() { return std::exchange(fd_, -1); }

  // Closes it now; false when that reports an error (data written to it may then be lost). The
  // descriptor is gone in any case. True when there was none.
  bool Close() {
    const int fd = std::exchange(fd_, -1);
    return fd < 0 || close(fd) == 0;
  }

 private:
  int fd_ = -1;
};

}  // namespace base
