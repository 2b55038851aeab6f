// Sees when a program has to wait for a lock that another one holds.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "base/unique_fd.h"

namespace torture {

class LockWatch {
 public:
  // Throws std::system_error.
  LockWatch();
  LockWatch(const LockWatch&) = delete;
  LockWatch& operator=(const LockWatch&) = delete;
  ~LockWatch();

  // What to put before a command so that it is watched.
  [[nodiscard]] std::vector<std::string> Prefix() const;

  // Waits until the watched program finds a lock in other hands, or has ended: the file of the
  // lock, or nothing. `process` is the program that was started with the prefix.
  [[nodiscard]] std::optional<std::string> WaitForBusyLock(pid_t process);

 private:
  bool Read();
  std::optional<std::string> BusyLock();

  std::string path_;
  base::UniqueFd trace_;
  base::UniqueFd writer_;  // so that reading never ends before the program does
  std::string unread_;
};

}  // namespace torture
