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

void LogRootTaken(LogSite site, const char* call) {
  LogAt(LOG_AUTH | LOG_INFO, site, "WARNING: set%s(%d, %d, %d)", call, kUnchanged, 0, kUnchanged);
}

void LogFailure(LogSite site, const char* call, unsigned int target) {
  std::array<char, 1024> buffer{};
  const char* reason = strerror_r(errno, buffer.data(), buffer.size());
  LogAt(LOG_AUTH | LOG_ERR, site, "ERROR: set%s(%d, %d, %d) [%s]", call, kUnchanged,
        static_cast<int>(target), kUnchanged, reason);
}

bool SetEffectiveGroup(LogSite site, gid_t group) {
  if (setresgid(static_cast<gid_t>(kUnchanged), group, static_cast<gid_t>(kUnchanged)) != 0) {
    LogFailure(site, "resgid", group);
    return false;
  }
  if (group == kRootGroup) {
    LogRootTaken(site, "resgid");
  }
  return true;
}

bool SetEffectiveUser(LogSite site, uid_t user) {
  if (setresuid(static_cast<uid_t>(kUnchanged), user, static_cast<uid_t>(kUnchanged)) != 0) {
    LogFailure(site, "resuid", user);
    return false;
  }
  if (user == kRootUser) {
    LogRootTaken(site, "resuid");
  }
  return true;
}

}  // namespace

PrivilegeGuard::PrivilegeGuard(LogSite site) : site_(site), already_root_(geteuid() == kRootUser) {
  if (already_root_) {
    entered_ = true;
    return;
  }
  entered_ = Enter();
  errno = entered_ ? 0 : EPERM;
  if (!entered_) {
    LogAt(LOG_AUTH | LOG_ERR, site_, "ERROR: ENTERCriticalSection");
  }
}

PrivilegeGuard::~PrivilegeGuard() {
  if (entered_ && !already_root_) {
    Leave();
  }
}

// The group goes first, so that the process is root in full from the moment its user is.
bool PrivilegeGuard::Enter() {
  saved_user_ = geteuid();
  saved_group_ = getegid();
  if (saved_group_ != kRootGroup && !SetEffectiveGroup(site_, kRootGroup)) {
    return false;
  }
  return saved_user_ == kRootUser || SetEffectiveUser(site_, kRootUser);
}

// The operation may have changed the effective user; only root may change the group back.
void PrivilegeGuard::Leave() {
  const uid_t current_user = geteuid();
  const gid_t current_group = getegid();
  const bool user_differs = saved_user_ != current_user;
  const bool group_differs = saved_group_ != current_group;
  const bool restored = (!user_differs || SetEffectiveUser(site_, kRootUser)) &&
                        (!group_differs || SetEffectiveGroup(site_, saved_group_)) &&
                        (!user_differs || SetEffectiveUser(site_, saved_user_));
  errno = restored ? 0 : EPERM;
  if (!restored) {
    LogAt(LOG_AUTH | LOG_ERR, site_, "ERROR: LEAVECriticalSection");
  }
}

void LogPermissionFailure(LogSite site) {
  if (errno == EPERM) {
    LogError(site, "Change permission failed");
  }
}

}  // namespace nodelink
