#include "pkce/file_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "base/unique_fd.h"
#include "lab/process.h"
#include "lab/users.h"
#include "tests/support/child.h"
#include "tests/support/fail_each_call.h"
#include "tests/support/platform_fixture.h"

namespace nodelink {
namespace {

using std::chrono::microseconds;
using std::chrono::seconds;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr char kPath[] = "/tmp/account_file_lock_test.lock";
constexpr unsigned int kTimeout = 30;

// Another program that holds the lock until it is told to let go.
class OtherHolder {
 public:
  OtherHolder() : process_({"flock", "--nonblock", kPath, "sh", "-c", "echo held; read line"}) {
    process_.WaitForLine("held");
  }
  void LetGo() {
    process_.CloseStdin();
    (void)process_.Wait();
  }

 private:
  lab::BackgroundProcess process_;
};

bool HeldBySomebody() {
  const base::UniqueFd file(open(kPath, O_RDWR | O_CLOEXEC));
  return flock(file.get(), LOCK_EX | LOCK_NB) != 0;
}

mode_t CurrentUmask() {
  const mode_t mask = umask(0);
  umask(mask);
  return mask;
}

// Time passes by pauses only.
class FileLockTest : public PlatformTest {
 protected:
  FileLockTest() {
    std::filesystem::remove_all(kPath);
    hooks().system_clock_now = [this] { return now_; };
    hooks().usleep = [this](useconds_t pause) {
      pauses_.push_back(pause);
      now_ += microseconds(pause);
      if (on_pause_) on_pause_();
    };
  }
  ~FileLockTest() override {
    lock_.reset();
    std::filesystem::remove_all(kPath);
  }

  std::size_t Attempts() const { return platform().call_count("KLIBCFileLockByFile"); }

  void ExpectOpenFailed(const std::string& path = kPath) {
    EXPECT_THAT(LogWithLines(), ElementsAre("file_lock:25 Failed to open file: " + path));
    EXPECT_THAT(LogWithPriorities(),
                ElementsAre("user.err file_lock Failed to open file: " + path));
    EXPECT_EQ(Attempts(), 0U);
    EXPECT_THAT(pauses_, IsEmpty());
  }

  std::chrono::system_clock::time_point now_{seconds(1'700'000'000)};
  std::vector<useconds_t> pauses_;
  std::function<void()> on_pause_;
  std::unique_ptr<FileLock> lock_ = std::make_unique<FileLock>(kPath, 0);
};

TEST_F(FileLockTest, NewLockTouchesNothing) {
  EXPECT_EQ(lock_->path(), kPath);
  EXPECT_FALSE(std::filesystem::exists(kPath));
  EXPECT_THAT(platform().all_calls(), IsEmpty());
}

TEST_F(FileLockTest, FreeLockIsTakenAtOnce) {
  EXPECT_TRUE(lock_->Lock(kTimeout));
  EXPECT_TRUE(HeldBySomebody());
  EXPECT_THAT(pauses_, IsEmpty());
  EXPECT_THAT(platform().calls(), ElementsAre(fake_hos::Call{"KLIBCFileLockByFile", {kPath, "1"}}));
  EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(FileLockTest, OtherModeAsksForAnotherFlag) {
  FileLock lock(kPath, 1);
  EXPECT_TRUE(lock.Lock(kTimeout));
  EXPECT_THAT(platform().calls("KLIBCFileLockByFile").at(0).args, ElementsAre(kPath, "0"));
}

TEST_F(FileLockTest, UnlockReleasesAndKeepsTheFile) {
  ASSERT_TRUE(lock_->Lock(kTimeout));
  lock_->Unlock();
  EXPECT_FALSE(HeldBySomebody());
  EXPECT_TRUE(std::filesystem::exists(kPath));
  EXPECT_EQ(platform().live_objects(), 0);
}

TEST_F(FileLockTest, UnlockTwiceOrWithoutALockDoesNothing) {
  lock_->Unlock();
  EXPECT_EQ(platform().call_count("KLIBCFileUnlockByFile"), 0U);
  ASSERT_TRUE(lock_->Lock(kTimeout));
  lock_->Unlock();
  lock_->Unlock();
  EXPECT_EQ(platform().call_count("KLIBCFileUnlockByFile"), 1U);
}

TEST_F(FileLockTest, DestroyedLockIsReleased) {
  ASSERT_TRUE(lock_->Lock(kTimeout));
  lock_.reset();
  EXPECT_FALSE(HeldBySomebody());
  EXPECT_EQ(platform().call_count("KLIBCFileUnlockByFile"), 1U);
}

TEST_F(FileLockTest, HeldLockIsReleasedBeforeItIsTakenAgain) {
  ASSERT_TRUE(lock_->Lock(kTimeout));
  ASSERT_TRUE(lock_->Lock(kTimeout));
  std::vector<std::string> names;
  for (const fake_hos::Call& call : platform().calls()) names.push_back(call.name);
  EXPECT_THAT(names,
              ElementsAre("KLIBCFileLockByFile", "KLIBCFileUnlockByFile", "KLIBCFileLockByFile"));
  EXPECT_THAT(pauses_, IsEmpty());
}

TEST_F(FileLockTest, HeldLockSurvivesAFailureToMakeTheFile) {
  ASSERT_TRUE(lock_->Lock(kTimeout));
  hooks().open = [](const char*, int, mode_t) { return -1; };
  EXPECT_FALSE(lock_->Lock(kTimeout));
  hooks().open = nullptr;
  EXPECT_TRUE(HeldBySomebody());
}

// ---- Waiting.

TEST_F(FileLockTest, TimeLimitZeroMakesNoAttempt) {
  EXPECT_FALSE(lock_->Lock(0));
  EXPECT_EQ(Attempts(), 0U);
  EXPECT_THAT(pauses_, IsEmpty());
  EXPECT_TRUE(std::filesystem::exists(kPath));
  EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(FileLockTest, GivesUpSilentlyAtTheDeadline) {
  const auto start = now_;
  platform().FailAlways("KLIBCFileLockByFile");
  EXPECT_FALSE(lock_->Lock(kTimeout));
  EXPECT_GE(now_ - start, seconds(kTimeout));
  EXPECT_LT(now_ - start, seconds(kTimeout) + microseconds(100'000));
  EXPECT_EQ(Attempts(), pauses_.size());
  EXPECT_GE(Attempts(), 300U);
  EXPECT_LE(Attempts(), 600U);
  EXPECT_THAT(Log(), IsEmpty());
  lock_->Unlock();
  EXPECT_EQ(platform().call_count("KLIBCFileUnlockByFile"), 0U);
}

TEST_F(FileLockTest, PausesAreSpreadOverFiftyToAHundredMilliseconds) {
  platform().FailAlways("KLIBCFileLockByFile");
  EXPECT_FALSE(lock_->Lock(300));
  EXPECT_THAT(pauses_, testing::Each(testing::AllOf(testing::Ge(50'000U), testing::Le(100'000U))));
  EXPECT_LT(*std::min_element(pauses_.begin(), pauses_.end()), 52'000U);
  EXPECT_GT(*std::max_element(pauses_.begin(), pauses_.end()), 98'000U);
}

TEST_F(FileLockTest, EachLockHasPausesOfItsOwn) {
  std::set<std::vector<useconds_t>> sequences;
  constexpr std::size_t kLocks = 5;
  for (std::size_t count = 0; count < kLocks; ++count) {
    platform().busy_lock_tries = 10;
    pauses_.clear();
    ASSERT_TRUE(lock_->Lock(kTimeout));
    sequences.insert(pauses_);
  }
  EXPECT_EQ(sequences.size(), kLocks);
}

// The deadline is reached exactly: no attempt is made any more.
TEST_F(FileLockTest, ClockIsReadBeforeEachAttempt) {
  platform().FailAlways("KLIBCFileLockByFile");
  const auto start = now_;
  on_pause_ = [&] { now_ = start + seconds(kTimeout + pauses_.size() - 1); };
  EXPECT_FALSE(lock_->Lock(kTimeout));
  EXPECT_EQ(Attempts(), 1U);
}

TEST_F(FileLockTest, LastMomentBeforeTheDeadlineStillCounts) {
  platform().busy_lock_tries = 1;
  const auto start = now_;
  on_pause_ = [&] { now_ = start + seconds(kTimeout) - std::chrono::nanoseconds(1); };
  EXPECT_TRUE(lock_->Lock(kTimeout));
}

TEST_F(FileLockTest, ClockThatJumpsAheadEndsTheWaiting) {
  platform().FailAlways("KLIBCFileLockByFile");
  on_pause_ = [this] { now_ += std::chrono::hours(24); };
  EXPECT_FALSE(lock_->Lock(kTimeout));
  EXPECT_EQ(Attempts(), 1U);
}

TEST_F(FileLockTest, LongestTimeLimitIsNoneThatHasPassed) { EXPECT_TRUE(lock_->Lock(0xFFFFFFFFU)); }

TEST_F(FileLockTest, LockOfAnotherProcessIsWaitedForUntilItLetsGo) {
  OtherHolder other;
  on_pause_ = [&] {
    if (pauses_.size() == 3) other.LetGo();
  };
  EXPECT_TRUE(lock_->Lock(kTimeout));
  EXPECT_EQ(pauses_.size(), 3U);
}

TEST_F(FileLockTest, LockThatAnotherProcessKeepsIsNotTaken) {
  OtherHolder other;
  EXPECT_FALSE(lock_->Lock(kTimeout));
  other.LetGo();
  EXPECT_TRUE(lock_->Lock(kTimeout));
}

TEST_F(FileLockTest, HeldLockKeepsAnotherProcessOut) {
  ASSERT_TRUE(lock_->Lock(kTimeout));
  EXPECT_EQ(lab::RunProcess({"flock", "--nonblock", kPath, "true"}).exit_status, 1);
  lock_->Unlock();
  EXPECT_EQ(lab::RunProcess({"flock", "--nonblock", kPath, "true"}).exit_status, 0);
}

TEST_F(FileLockTest, LockEndsWithItsProcess) {
  (void)RunInChild([this] { return std::string(lock_->Lock(kTimeout) ? "held" : ""); });
  EXPECT_FALSE(HeldBySomebody());
}

// ---- The file.

class UmaskTest : public FileLockTest, public testing::WithParamInterface<mode_t> {
 protected:
  ~UmaskTest() override { umask(022); }
};

TEST_P(UmaskTest, FileIsOpenToEverybodyAndTheUmaskStays) {
  umask(GetParam());
  EXPECT_TRUE(lock_->Lock(kTimeout));
  EXPECT_EQ(test_files::ModeOf(kPath), 0666U);
  EXPECT_EQ(CurrentUmask(), GetParam());
}

TEST_P(UmaskTest, StaysAfterAFailureToo) {
  umask(GetParam());
  EXPECT_FALSE(FileLock("/tmp/none/file.lock", 0).Lock(kTimeout));
  EXPECT_EQ(CurrentUmask(), GetParam());
}

INSTANTIATE_TEST_SUITE_P(Masks, UmaskTest, testing::Values(0U, 011U, 022U, 077U, 0777U));

TEST_F(FileLockTest, FileIsOpenedOnceAndNotKeptOpen) {
  struct OpenCall {
    int flags;
    mode_t mode;
    mode_t mask;
  };
  std::vector<OpenCall> opened;
  std::vector<int> closed;
  int made = -1;
  platform().FailAlways("KLIBCFileLockByFile");
  hooks().open = [&](const char* path, int flags, mode_t mode) {
    opened.push_back({flags, mode, CurrentUmask()});
    return made = interpose::RealOpen(path, flags, mode);
  };
  hooks().close = [&](int fd) {
    closed.push_back(fd);
    return interpose::RealClose(fd);
  };
  EXPECT_FALSE(lock_->Lock(1));
  ASSERT_EQ(opened.size(), 1U);
  EXPECT_EQ(opened[0].flags, O_RDWR | O_CREAT | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC);
  EXPECT_EQ(opened[0].mode, 0666U);
  EXPECT_EQ(opened[0].mask, 011U);
  EXPECT_THAT(closed, ElementsAre(made));
}

TEST_F(FileLockTest, FileThatIsThereIsLeftAsItIs) {
  test_files::Write(kPath, "content", 0600);
  EXPECT_TRUE(lock_->Lock(kTimeout));
  EXPECT_EQ(test_files::Read(kPath), "content");
  EXPECT_EQ(test_files::ModeOf(kPath), 0600U);
}

TEST_F(FileLockTest, MissingFolderFailsAtOnce) {
  FileLock lock("/tmp/none/%s.lock", 0);
  EXPECT_FALSE(lock.Lock(kTimeout));
  ExpectOpenFailed("/tmp/none/%s.lock");
}

TEST_F(FileLockTest, FolderInTheFilesPlaceFailsAtOnce) {
  std::filesystem::create_directory(kPath);
  EXPECT_FALSE(lock_->Lock(kTimeout));
  ExpectOpenFailed();
}

TEST_F(FileLockTest, FolderThatIsNotWritableFailsAtOnce) {
  if (!lab::HasOtherUsers()) GTEST_SKIP() << "there is no other user in a lab of an ordinary user";
  const std::string held = RunInChild([] {
    BecomeIds({1026, 1026, 1026, 100, 100, 100});
    return std::string(FileLock("/etc/account.lock", 0).Lock(kTimeout) ? "held" : "failed");
  });
  EXPECT_EQ(held, "failed");
  ExpectOpenFailed("/etc/account.lock");
}

TEST_F(FileLockTest, LinkIsNotFollowed) {
  const std::string target = "/tmp/file_lock_test.target";
  for (const bool exists : {false, true}) {
    if (exists) test_files::Write(target, "precious");
    std::filesystem::remove(kPath);
    std::filesystem::create_symlink(target, kPath);
    ClearLog();
    EXPECT_FALSE(lock_->Lock(kTimeout));
    ExpectOpenFailed();
    EXPECT_EQ(std::filesystem::exists(target), exists);
  }
  EXPECT_EQ(test_files::Read(target), "precious");
  std::filesystem::remove(target);
}

TEST_F(FileLockTest, FifoInTheFilesPlaceDoesNotHang) {
  ASSERT_EQ(mkfifo(kPath, 0666), 0);
  (void)lock_->Lock(kTimeout);  // held or not: it comes back
  EXPECT_EQ(CurrentUmask(), 022U);
}

TEST_F(FileLockTest, SocketInTheFilesPlaceFailsAtOnce) {
  const lab::SyslogSink socket(kPath);
  EXPECT_FALSE(lock_->Lock(kTimeout));
  ExpectOpenFailed();
}

TEST_F(FileLockTest, FailedCloseIsLoggedAndFails) {
  hooks().close = [](int fd) {
    (void)interpose::RealClose(fd);
    errno = EIO;
    return -1;
  };
  EXPECT_FALSE(lock_->Lock(kTimeout));
  hooks().close = nullptr;
  EXPECT_THAT(LogWithLines(),
              ElementsAre(std::string("file_lock:29 Failed to close file: ") + kPath));
  EXPECT_THAT(LogWithPriorities(),
              ElementsAre(std::string("user.err file_lock Failed to close file: ") + kPath));
  EXPECT_EQ(Attempts(), 0U);
}

// In a sticky folder some kernels refuse O_CREAT on another user's file. `reason` is what the open
// with O_CREAT gives.
class CreateRefusedTest : public FileLockTest, public testing::WithParamInterface<int> {
 protected:
  void SetUp() override {
    hooks().open = [this](const char* path, int flags, mode_t mode) {
      flags_.push_back(flags);
      if ((flags & O_CREAT) != 0) {
        errno = GetParam();
        return -1;
      }
      return interpose::RealOpen(path, flags, mode);
    };
  }

  std::vector<int> flags_;
};

class AccessRefusedTest : public CreateRefusedTest {};

TEST_P(AccessRefusedTest, FileThatIsThereIsOpenedWithoutCreating) {
  test_files::Write(kPath, "", 0666);
  EXPECT_TRUE(lock_->Lock(kTimeout));
  ASSERT_GE(flags_.size(), 2U);
  EXPECT_EQ(flags_[1], O_RDWR | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC);
  EXPECT_THAT(Log(), IsEmpty());
  EXPECT_EQ(CurrentUmask(), 022U);
}

TEST_P(AccessRefusedTest, MissingFileStaysMissing) {
  EXPECT_FALSE(lock_->Lock(kTimeout));
  hooks().open = nullptr;
  ExpectOpenFailed();
}

INSTANTIATE_TEST_SUITE_P(Reasons, AccessRefusedTest, testing::Values(EACCES));

TEST_P(CreateRefusedTest, OtherReasonsAreFailuresAtOnce) {
  test_files::Write(kPath, "", 0666);
  EXPECT_FALSE(lock_->Lock(kTimeout));
  EXPECT_EQ(flags_.size(), 1U);
  hooks().open = nullptr;
  ExpectOpenFailed();
}

INSTANTIATE_TEST_SUITE_P(OtherReasons, CreateRefusedTest,
                         testing::Values(EPERM, ENOSPC, EROFS, EMFILE, ELOOP));

TEST_F(FileLockTest, FileOfAnotherUserInTheStickyFolderIsLocked) {
  test_files::Write(kPath, "", 0666);
  if (chown(kPath, 1026, 100) != 0) {
    GTEST_SKIP() << "there is no other user in a lab of an ordinary user";
  }
  EXPECT_TRUE(lock_->Lock(kTimeout));
}

TEST_F(FileLockTest, UsersShareTheLockThatOneOfThemMade) {
  if (!lab::HasOtherUsers()) GTEST_SKIP() << "there is no other user in a lab of an ordinary user";
  (void)RunInChild([this] {
    BecomeIds({1026, 1026, 1026, 100, 100, 100});
    umask(077);
    return std::string(lock_->Lock(kTimeout) ? "" : "failed");
  });
  EXPECT_EQ(test_files::ModeOf(kPath), 0666U);
  EXPECT_TRUE(lock_->Lock(kTimeout));
}

// ---- A file that was replaced.

// The owner of a lock file may put another in its place at any moment, even while it is locked.
TEST_F(FileLockTest, LockOnAFileThatIsGoneIsNoneAndTriedAgain) {
  int replacements = 2;
  platform().locked = [&replacements] {
    if (replacements-- > 0) {
      std::filesystem::remove(kPath);
      test_files::Write(kPath, "");
    }
  };
  EXPECT_TRUE(lock_->Lock(kTimeout));
  EXPECT_EQ(Attempts(), 3U);
  EXPECT_EQ(pauses_.size(), 2U);
  EXPECT_TRUE(HeldBySomebody());
  EXPECT_EQ(platform().live_objects(), 1) << "the lock on the file that is gone was given back";
}

TEST_F(FileLockTest, LinkToTheLockedFileIsNotThatFile) {
  platform().locked = [] {
    if (!std::filesystem::is_symlink(kPath)) {
      std::filesystem::rename(kPath, "/tmp/moved.lock");
      std::filesystem::create_symlink("/tmp/moved.lock", kPath);
    }
  };
  EXPECT_FALSE(lock_->Lock(kTimeout));
  std::filesystem::remove("/tmp/moved.lock");
}

TEST_F(FileLockTest, FileThatIsReplacedForEverIsNeverLocked) {
  platform().locked = [] {
    std::filesystem::remove(kPath);
    test_files::Write(kPath, "");
  };
  EXPECT_FALSE(lock_->Lock(kTimeout));
  EXPECT_EQ(platform().live_objects(), 0);
  EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(FileLockTest, AnyFailingCallIsTriedAgainOrForgotten) {
  bool held = false;
  FailEachCall([] {},
               [&] {
                 held = lock_->Lock(kTimeout);
                 lock_->Unlock();
               },
               [&] {
                 EXPECT_TRUE(held);
                 EXPECT_FALSE(HeldBySomebody());
               });
}

}  // namespace
}  // namespace nodelink
