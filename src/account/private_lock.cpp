#include "account/private_lock.h"

#include <fcntl.h>

#include <algorithm>
#include <array>
#include <cerrno>

#include "account/privilege_guard.h"
#include "base/atomic_replace.h"

namespace nodelink {
namespace {

constexpr int kFlags = O_RDONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
constexpr mode_t kMode = 0600;

// Why the file can be opened by no process at all.
bool IsEverybodys(int reason) {
  constexpr std::array kReasons = {ENOENT, ENOTDIR, EACCES, EPERM, EROFS, ENOSPC, EDQUOT};
  return std::find(kReasons.begin(), kReasons.end(), reason) != kReasons.end();
}

}  // namespace

PrivateLock::Outcome PrivateLock::Take(std::chrono::milliseconds limit) {
  int reason = EPERM;
  (void)RunPrivilegedSilently([&] {
    file_ = base::UniqueFd(open(path_, kFlags, kMode));
    reason = errno;
  });
  if (!file_) return IsEverybodys(reason) ? Outcome::kTaken : Outcome::kFailed;
  if (base::LockWithinLimit(file_.get(), limit)) return Outcome::kTaken;
  return errno == EWOULDBLOCK ? Outcome::kBusy : Outcome::kFailed;
}

}  // namespace nodelink
