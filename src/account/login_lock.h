// One login at a time: two at once could leave a link at the server that the device does not know.
#pragma once

#include <functional>

#include "account/private_lock.h"

namespace nodelink {

// Held from a login's first request to its end: the one lock of this program's own that is held
// while a server is waited for.
class LoginLock {
 public:
  // Waits for another login for 30 seconds at most; after 3 seconds logs that it waits and calls
  // `waits`, if there is one. Throws ZomiException with kGenericError, logged, when the lock cannot
  // be had.
  explicit LoginLock(const std::function<void()>& waits);

 private:
  PrivateLock lock_;
};

}  // namespace nodelink
