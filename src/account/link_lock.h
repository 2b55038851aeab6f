// The device's link to its account, held still while an answer of a server is acted on.
//
// A flow that asks a server on behalf of a link remembers the link's identity. Minutes may pass
// until the answer comes, and other processes may have ended the link or made another one by then.
// So whoever stores an answer, or does anything because of it, looks first, under this lock,
// whether the record still holds the identity that the server was asked for:
//
//   const LinkLock lock;
//   if (!lock.Holds(asked_for)) throw LinkChanged(Here());
//   ... act ...
//
// Never hold it while a server is waited for.
#pragma once

#include <optional>

#include "account/account_data.h"
#include "account/private_lock.h"
#include "core/log.h"
#include "core/zomi_exception.h"

namespace nodelink {

class LinkLock {
 public:
  // Waits for other processes for 30 seconds at most. Throws ZomiException with kSystemError,
  // logged, when the lock cannot be had.
  LinkLock();

  // The link that the record names; nothing when the record cannot be read.
  std::optional<LinkIdentity> Link() const;

  // Whether the record names exactly that link.
  bool Holds(const LinkIdentity& link) const { return Link() == link; }

  // Whether the record names a link, and not that one: then somebody linked the device anew.
  bool HoldsAnother(const LinkIdentity& link) const;

 private:
  PrivateLock lock_;
};

// The answer is for a link that is no longer the device's. Thrown by the object layer; the code is
// kNoAccount.
class LinkChanged : public ZomiException {
 public:
  // Logs that the answer is dropped, as coming from `site`.
  explicit LinkChanged(LogSite site);
};

// The same for the function layer: gives the -1 of a function that failed.
int FailLinkChanged(LogSite site);

}  // namespace nodelink
