#include "klibc/filelock.h"

#include <fcntl.h>
#include <sys/file.h>

#include <cerrno>

#include "base/atomic_replace.h"
#include "base/unique_fd.h"
#include "hos/linux/error.h"

extern "C" {

int KLIBCFileLockByFile(const char* path, int exclusive, int* fd) {
  if (path == nullptr || fd == nullptr) return hos_linux::False(hos_linux::kBadArgument) ? 1 : 0;
  // Lock files stand in folders where anybody may put a link or a pipe in their place.
  base::UniqueFd lock(open(path, O_RDWR | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY));
  if (!lock) return hos_linux::FalseFromErrno() ? 1 : 0;
  const int kind = exclusive == 0 ? LOCK_SH : LOCK_EX;
  while (flock(lock.get(), kind | LOCK_NB) != 0) {
    if (errno != EINTR) return hos_linux::FalseFromErrno() ? 1 : 0;
  }
  // Whoever comes later locks the file that stands there then.
  if (!base::StandsAt(lock.get(), path)) return hos_linux::False(hos_linux::kNotFound) ? 1 : 0;
  *fd = lock.Release();
  return 1;
}

int KLIBCFileUnlockByFile(int fd) {
  if (fd < 0) return hos_linux::False(hos_linux::kBadArgument) ? 1 : 0;
  const bool unlocked = flock(fd, LOCK_UN) == 0 || hos_linux::FalseFromErrno();
  const bool closed = close(fd) == 0 || hos_linux::FalseFromErrno();
  return unlocked && closed ? 1 : 0;
}
}
