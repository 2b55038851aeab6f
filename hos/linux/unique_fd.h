// A file descriptor that closes itself.
#pragma once

#include <unistd.h>

#include <utility>

namespace hos_linux {

class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) : fd_(fd) {}
  UniqueFd(UniqueFd&& other) noexcept : fd_(other.Release()) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;
  ~UniqueFd() {
    if (fd_ >= 0) close(fd_);
  }

  [[nodiscard]] int get() const { return fd_; }
  [[nodiscard]] bool valid() const { return fd_ >= 0; }
  [[nodiscard]] int Release() { return std::exchange(fd_, -1); }

  // Closes now and tells whether that worked; for files where a failed close is a failed write.
  [[nodiscard]] bool Close() { return close(Release()) == 0; }

 private:
  int fd_ = -1;
};

}  // namespace hos_linux
