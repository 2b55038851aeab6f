#include "account/privilege_guard.h"

#include <syslog.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>

namespace nodelink {
namespace {

constexpr uid_t kRootUser = 0;
constexpr gid_t kRootGroup = 0;
constexpr int kUnchanged = -1;

}  // namespace

PrivilegeGuard::PrivilegeGuard(std::optional<LogSite> site)
    : site_(site), already_root_(geteuid() == kRootUser) {
  if (already_root_) {
    entered_ = true;
    return;
  }
  entered_ = Enter();
  errno = entered_ ? 0 : EPERM;
  if (!entered_) LogLost("ENTERCriticalSection");
}

PrivilegeGuard::~PrivilegeGuard() {
  if (entered_ && !already_root_) Leave();
}

// The group goes first, so that the process is root in full from the moment its user is.
bool PrivilegeGuard::Enter() {
  saved_user_ = geteuid();
  saved_group_ = getegid();
  if (saved_group_ != kRootGroup && !SetEffectiveGroup(kRootGroup)) return false;
  return saved_user_ == kRootUser || SetEffectiveUser(kRootUser);
}

// The operation may have changed the effective user; only root may change the group back.
void PrivilegeGuard::Leave() {
  const uid_t current_user = geteuid();
  const gid_t current_group = getegid();
  const bool user_differs = saved_user_ != current_user;
  const bool group_differs = saved_group_ != current_group;
  const bool restored = (!user_differs || SetEffectiveUser(kRootUser)) &&
                        (!group_differs || SetEffectiveGroup(saved_group_)) &&
                        (!user_differs || SetEffectiveUser(saved_user_));
  errno = restored ? 0 : EPERM;
  if (!restored) LogLost("LEAVECriticalSection");
}

bool PrivilegeGuard::SetEffectiveGroup(gid_t group) {
  if (setresgid(static_cast<gid_t>(kUnchanged), group, static_cast<gid_t>(kUnchanged)) != 0) {
    LogFailure("resgid", group);
    return false;
  }
  if (group == kRootGroup) LogRootTaken("resgid");
  return true;
}

bool PrivilegeGuard::SetEffectiveUser(uid_t user) {
  if (setresuid(static_cast<uid_t>(kUnchanged), user, static_cast<uid_t>(kUnchanged)) != 0) {
    LogFailure("resuid", user);
    return false;
  }
  if (user == kRootUser) LogRootTaken("resuid");
  return true;
}

void PrivilegeGuard::LogRootTaken(const char* call) const {
  if (site_) {
    LogAt(LOG_AUTH | LOG_INFO, *site_, "WARNING: set%s(%d, %d, %d)", call, kUnchanged, 0,
          kUnchanged);
  }
}

void PrivilegeGuard::LogFailure(const char* call, unsigned int target) const {
  if (site_) {
    std::array<char, 1024> buffer{};
    const char* reason = strerror_r(errno, buffer.data(), buffer.size());
    LogAt(LOG_AUTH | LOG_ERR, *site_, "ERROR: set%s(%d, %d, %d) [%s]", call, kUnchanged,
          static_cast<int>(target), kUnchanged, reason);
  }
}

void PrivilegeGuard::LogLost(const char* section) const {
  if (site_) LogAt(LOG_AUTH | LOG_ERR, *site_, "ERROR: %s", section);
}

void LogPermissionFailure(LogSite site) {
  if (errno == EPERM) LogError(site, "Change permission failed");
}

}  // namespace nodelink
