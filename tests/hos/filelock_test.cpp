#include "klibc/filelock.h"

#include <gtest/gtest.h>
#include <sys/file.h>

#include <filesystem>
#include <functional>

#include "lab/files.h"

namespace {

constexpr char kFile[] = "/tmp/filelock_test.lock";

std::function<void()> before_flock;

}  // namespace

extern "C" {

// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,readability-identifier-naming)
int __real_flock(int fd, int operation);

int __wrap_flock(int fd, int operation) {
  if (before_flock) before_flock();
  return __real_flock(fd, operation);
}
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,readability-identifier-naming)
}

namespace {

// Between the opening and the locking, the owner of the file puts another in its place.
TEST(FileLock, AFileThatIsReplacedBeforeItIsLockedIsNotLocked) {
  test_files::Write(kFile, "");
  before_flock = [] {
    std::filesystem::remove(kFile);
    test_files::Write(kFile, "");
  };
  int fd = -7;
  EXPECT_EQ(KLIBCFileLockByFile(kFile, 1, &fd), 0);
  EXPECT_EQ(fd, -7);
  before_flock = nullptr;
  ASSERT_NE(KLIBCFileLockByFile(kFile, 1, &fd), 0);
  EXPECT_NE(KLIBCFileUnlockByFile(fd), 0);
}

TEST(FileLock, AFileThatIsRemovedBeforeItIsLockedIsNotLocked) {
  test_files::Write(kFile, "");
  before_flock = [] { std::filesystem::remove(kFile); };
  int fd = -7;
  EXPECT_EQ(KLIBCFileLockByFile(kFile, 1, &fd), 0);
  EXPECT_EQ(fd, -7);
  before_flock = nullptr;
}

}  // namespace
