// Starting another program and waiting for it.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <csignal>
#include <optional>
#include <string>
#include <vector>

#include "base/unique_fd.h"

namespace hos_linux {

// A running program in a process group of its own, with /dev/null as standard streams, no other
// descriptor, default signals and a fixed environment: what the platform starts may run with other
// rights than whoever set the caller's environment. The destructor kills and reaps what is left.
class Child {
 public:
  Child() = default;
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;
  ~Child();

  // Starts `path` with `args` (without the program's name). False when it cannot be started.
  [[nodiscard]] bool Start(const std::string& path, const std::vector<std::string>& args);

  // Waits for the end of the program: its exit status, or 128 plus the signal that ended it.
  // Nothing when the limit passes first, or when the status is lost.
  [[nodiscard]] std::optional<int> Wait();
  [[nodiscard]] std::optional<int> WaitFor(std::chrono::milliseconds limit);

 private:
  // A caller that ignores SIGCHLD has its children reaped by the kernel, and their status lost.
  class ReapableChildren {
   public:
    ReapableChildren();
    ReapableChildren(const ReapableChildren&) = delete;
    ReapableChildren& operator=(const ReapableChildren&) = delete;
    ~ReapableChildren();

   private:
    struct sigaction old_ = {};
  };

  ReapableChildren reapable_;
  pid_t pid_ = -1;
};

}  // namespace hos_linux
