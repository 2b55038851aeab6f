#include "account/login_lock.h"

#include "account/account_files.h"
#include "core/error_code.h"
#include "core/log.h"
#include "core/zomi_exception.h"

namespace nodelink {
namespace {

constexpr std::chrono::seconds kSilence{3};
constexpr std::chrono::seconds kLimit{30};

}  // namespace

LoginLock::LoginLock(const std::function<void()>& waits) : lock_(account_files::kLoginLock) {
  PrivateLock::Outcome outcome = lock_.Take(kSilence);
  if (outcome == PrivateLock::Outcome::kBusy) {
    LogError(Here(), "Waiting for another login");
    if (waits) waits();
    outcome = lock_.Take(kLimit - kSilence);
  }
  if (outcome != PrivateLock::Outcome::kTaken) {
    LogError(Here(), "Failed to lock file: %s", lock_.path());
    throw ZomiException(kGenericError);
  }
}

}  // namespace nodelink
