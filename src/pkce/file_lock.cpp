#include "pkce/file_lock.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <random>
#include <utility>

#include "base/atomic_replace.h"
#include "core/log.h"
#include "klibc/filelock.h"

namespace nodelink {
namespace {

// The places of these two lines in the log are fixed: administrators' filters know them.
constexpr LogSite kOpenFailedSite{"file_lock", 25};
constexpr LogSite kCloseFailedSite{"file_lock", 29};

// Processes of different users lock the same file, so nobody's umask may close it to the others.
constexpr mode_t kSharedUmask = 011;
constexpr mode_t kSharedMode = 0666;

// Non-blocking, because a FIFO in the file's place must not hold the program; no link is followed,
// because /tmp is everybody's.
constexpr int kOpenFlags = O_RDWR | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC;

// In a sticky folder the kernel may refuse O_CREAT on another user's file, even to root; that file
// can still be opened without it.
int OpenOrCreate(const char* path) {
  const mode_t old_umask = umask(kSharedUmask);
  int fd = open(path, kOpenFlags | O_CREAT, kSharedMode);
  if (fd < 0 && errno == EACCES) fd = open(path, kOpenFlags);
  umask(old_umask);
  return fd;
}

bool EnsureExists(const std::string& path) {
  const int fd = OpenOrCreate(path.c_str());
  if (fd < 0) {
    LogError(kOpenFailedSite, "Failed to open file: %s", path.c_str());
    return false;
  }
  if (close(fd) != 0) {
    LogError(kCloseFailedSite, "Failed to close file: %s", path.c_str());
    return false;
  }
  return true;
}

// The owner of a lock file in /tmp may put another in its place; who locks that one then is not
// kept out by us. A handle that is no descriptor is the platform's own to check.
bool IsWhereOthersLook(std::int32_t handle, const std::string& path) {
  return fcntl(handle, F_GETFD) < 0 || base::StandsAt(handle, path.c_str());
}

// Random pauses keep processes that wait for one lock from trying in step.
class BackOff {
 public:
  void Sleep() { usleep(pause_(generator_)); }

 private:
  static std::uint32_t Seed() {
    std::random_device device("default");
    constexpr std::uint32_t kModulus = std::minstd_rand0::modulus;
    const std::uint32_t seed = device() % kModulus;
    return seed == 0 ? 1 : seed;
  }

  std::minstd_rand0 generator_{Seed()};
  std::uniform_int_distribution<useconds_t> pause_{50'000, 100'000};  // microseconds
};

}  // namespace

FileLock::FileLock(std::string path, std::int32_t mode) : path_(std::move(path)), mode_(mode) {}

FileLock::~FileLock() { Unlock(); }

bool FileLock::Lock(unsigned int timeout_seconds) {
  if (!EnsureExists(path_)) return false;
  Unlock();
  const int exclusive = mode_ == 0 ? 1 : 0;
  const auto deadline = std::chrono::system_clock::now() + std::chrono::seconds(timeout_seconds);
  BackOff back_off;
  while (std::chrono::system_clock::now() < deadline) {
    if (KLIBCFileLockByFile(path_.c_str(), exclusive, &fd_) != 0) {
      if (IsWhereOthersLook(fd_, path_)) return true;
      Unlock();
    }
    back_off.Sleep();
  }
  return false;
}

void FileLock::Unlock() {
  if (fd_ != -1) {
    KLIBCFileUnlockByFile(fd_);
    fd_ = -1;
  }
}

}  // namespace nodelink
