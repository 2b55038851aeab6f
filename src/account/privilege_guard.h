// Raises the effective user and group to root around one operation on a protected file.
//
// The program is often started with a service account's effective ids while root is kept as the
// saved id; only the effective ids are ever changed. Sections do not nest: leaving one restores the
// ids that its own entering saved.
#pragma once

#include <sys/types.h>

#include <optional>

#include "core/log.h"

namespace nodelink {

class PrivilegeGuard {
 public:
  // Enters the section. `site` is the protected operation's place, for the log lines; without one
  // nothing is logged. When the ids cannot be raised the guard is not entered, errno is EPERM, and
  // what was raised so far stays. A process with effective user root enters without any change.
  explicit PrivilegeGuard(std::optional<LogSite> site);
  PrivilegeGuard(const PrivilegeGuard&) = delete;
  PrivilegeGuard& operator=(const PrivilegeGuard&) = delete;

  // Leaves the section: puts the saved ids back. A failure is logged at most.
  ~PrivilegeGuard();

  bool entered() const { return entered_; }

 private:
  bool Enter();
  void Leave();
  bool SetEffectiveGroup(gid_t group);
  bool SetEffectiveUser(uid_t user);
  void LogRootTaken(const char* call) const;
  void LogFailure(const char* call, unsigned int target) const;
  void LogLost(const char* section) const;

  std::optional<LogSite> site_;
  bool already_root_;
  bool entered_ = false;
  uid_t saved_user_ = 0;
  gid_t saved_group_ = 0;
};

// Logs that privileges could not be raised, if that is what errno still says.
void LogPermissionFailure(LogSite site);

// Runs `operation` with root's effective ids. False, logged as "Change permission failed" and
// without running it, when they cannot be had.
template <typename Operation>
[[nodiscard]] bool RunPrivileged(LogSite site, Operation operation) {
  const PrivilegeGuard guard(site);
  if (!guard.entered()) {
    LogPermissionFailure(site);
    return false;
  }
  operation();
  return true;
}

// The same without a log line of its own: for what the flows do on the way to an operation that
// says itself what it could not do.
template <typename Operation>
[[nodiscard]] bool RunPrivilegedSilently(Operation operation) {
  const PrivilegeGuard guard(std::nullopt);
  if (guard.entered()) operation();
  return guard.entered();
}

}  // namespace nodelink
