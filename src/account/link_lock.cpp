#include "account/link_lock.h"

#include "account/account_files.h"
#include "core/error_code.h"

namespace nodelink {
namespace {

constexpr std::chrono::seconds kLimit{30};

constexpr char kChanged[] = "The account link has changed, dropping the answer";

}  // namespace

LinkLock::LinkLock() : lock_(account_files::kLinkLock) {
  if (lock_.Take(kLimit) != PrivateLock::Outcome::kTaken) {
    LogError(Here(), "Failed to lock file: %s", lock_.path());
    throw ZomiException(kSystemError);
  }
}

std::optional<LinkIdentity> LinkLock::Link() const {
  AccountData data;
  return ReadAccountDataSilently(data) == 0 ? std::optional(LinkOf(data)) : std::nullopt;
}

bool LinkLock::HoldsAnother(const LinkIdentity& link) const {
  const auto held = Link();
  return held && *held != LinkIdentity() && *held != link;
}

LinkChanged::LinkChanged(LogSite site) : ZomiException(kNoAccount, kChanged) {
  LogError(site, "%s", kChanged);
}

int FailLinkChanged(LogSite site) {
  LogError(site, "%s", kChanged);
  return Fail(kNoAccount);
}

}  // namespace nodelink
