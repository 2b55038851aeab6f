// Something that happens once and can be waited for beside sockets.
#pragma once

#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <system_error>

#include "base/unique_fd.h"

namespace devcloud {

class Event {
 public:
  // Throws std::system_error.
  Event() : fd_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (!fd_) throw std::system_error(errno, std::generic_category(), "eventfd");
  }

  void Signal() const {
    const std::uint64_t one = 1;
    // An event counter takes a small number at once; nothing to handle.
    (void)!::write(fd_.get(), &one, sizeof one);
  }

  // Readable once it was signalled.
  [[nodiscard]] int fd() const { return fd_.get(); }

 private:
  base::UniqueFd fd_;
};

}  // namespace devcloud
