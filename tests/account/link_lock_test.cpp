#include "account/link_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <optional>

#include "account/account_files.h"
#include "account/login_lock.h"
#include "base/unique_fd.h"
#include "lab/users.h"
#include "tests/account/record_fixture.h"
#include "tests/support/child.h"

namespace nodelink {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

const std::string kFile = std::string(account_files::kFolder) + ".link.lock";
constexpr char kRecord[] = "zomiIDSerial=\"1\"\nhs_auth_key=\"k1\"\n";
const LinkIdentity kLink = {"1", "k1"};

class LinkLockTest : public PlatformTest {
 protected:
  static bool IsFree(const std::string& path) {
    const base::UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    return fd && flock(fd.get(), LOCK_EX | LOCK_NB) == 0;
  }
};

TEST_F(LinkLockTest, IsHeldUntilItGoesOnAFileOfRootsAlone) {
  {
    const LinkLock lock;
    EXPECT_FALSE(IsFree(kFile));
  }
  EXPECT_TRUE(IsFree(kFile));
  struct stat status {};
  ASSERT_EQ(stat(kFile.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0600U);
  EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(LinkLockTest, TellsWhichLinkTheRecordNames) {
  const LinkLock lock;
  EXPECT_EQ(lock.Link(), LinkIdentity()) << "no record";
  EXPECT_TRUE(lock.Holds({}));
  WriteRecord(kRecord);
  EXPECT_EQ(lock.Link(), kLink);
  EXPECT_TRUE(lock.Holds(kLink));
  EXPECT_FALSE(lock.Holds({}));
  EXPECT_FALSE(lock.Holds({"1", "k2"}));
  EXPECT_FALSE(lock.Holds({"2", "k1"}));
  WriteRecord("zomiID=\"anna\"\n");
  EXPECT_TRUE(lock.Holds({})) << "a record that names no link";
}

TEST_F(LinkLockTest, AnotherLinkIsOneThatIsThere) {
  const LinkLock lock;
  EXPECT_FALSE(lock.HoldsAnother(kLink)) << "no record";
  WriteRecord(kRecord);
  EXPECT_FALSE(lock.HoldsAnother(kLink));
  EXPECT_TRUE(lock.HoldsAnother({"1", "k2"}));
  EXPECT_TRUE(lock.HoldsAnother({}));
}

TEST_F(LinkLockTest, ARecordThatCannotBeReadNamesNobodyKnowsWhat) {
  std::filesystem::create_directory(account_files::kRecord);
  const LinkLock lock;
  EXPECT_EQ(lock.Link(), std::nullopt);
  EXPECT_FALSE(lock.Holds({}));
  EXPECT_FALSE(lock.HoldsAnother({}));
}

TEST_F(LinkLockTest, ALongKeyIsComparedWhole) {
  const std::string key(4000, 'k');
  WriteRecord("zomiIDSerial=\"1\"\nhs_auth_key=\"" + key + "2\"\n");
  EXPECT_FALSE(LinkLock().Holds({"1", key + "1"}));
}

TEST_F(LinkLockTest, RaisesPrivilegesInSilence) {
  if (!lab::HasOtherUsers()) GTEST_SKIP() << "there is no other user to become";
  WriteRecord(kRecord);
  const std::string held = RunInChild([] {
    BecomeIds({1026, 1026, 0, 100, 100, 0});
    const LinkLock lock;
    const std::string state = lock.Holds(kLink) ? "held" : "not held";
    return state + " " + std::to_string(geteuid());
  });
  EXPECT_EQ(held, "held 1026");
  EXPECT_THAT(Log(), IsEmpty());
}

// What cannot be locked by anybody cannot be changed by anybody, and says so itself.
TEST_F(LinkLockTest, WhereNobodyCanHaveItThereIsNothingToGuard) {
  for (const int reason : {ENOENT, EACCES, EROFS, ENOSPC}) {
    hooks().open = [reason](const char* path, int flags, mode_t mode) {
      errno = reason;
      return path == kFile ? -1 : interpose::RealOpen(path, flags, mode);
    };
    EXPECT_EQ(CodeThrownBy([] { const LinkLock lock; }), kSuccess) << reason;
  }
  EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(LinkLockTest, WhoeverAloneCannotHaveItMustNotAct) {
  hooks().open = [](const char* path, int flags, mode_t mode) {
    errno = EMFILE;
    return path == kFile ? -1 : interpose::RealOpen(path, flags, mode);
  };
  EXPECT_EQ(CodeThrownBy([] { const LinkLock lock; }), kSystemError);
  EXPECT_THAT(LogWithPriorities(), ElementsAre("user.err link_lock Failed to lock file: " + kFile));
}

TEST_F(LinkLockTest, ALinkIsNotFollowed) {
  std::filesystem::remove(kFile);
  std::filesystem::create_symlink("/etc/victim", kFile);
  EXPECT_EQ(CodeThrownBy([] { const LinkLock lock; }), kSystemError);
  EXPECT_FALSE(test_files::Exists("/etc/victim"));
  std::filesystem::remove(kFile);
}

TEST_F(LinkLockTest, ADroppedAnswerIsLoggedOnceAndHasTheCodeOfNoAccount) {
  try {
    throw LinkChanged({"flow", 7});
  } catch (const ZomiException& failure) {
    EXPECT_EQ(failure.code(), kNoAccount);
    EXPECT_THAT(
        failure.what(),
        testing::StartsWith("The account link has changed, dropping the answer [code=3]\n"));
  }
  SetLastErrorCode(kSuccess);
  EXPECT_EQ(FailLinkChanged({"flow", 8}), -1);
  EXPECT_EQ(LastErrorCode(), kNoAccount);
  EXPECT_THAT(LogWithPriorities(),
              ElementsAre("user.err flow The account link has changed, dropping the answer",
                          "user.err flow The account link has changed, dropping the answer"));
}

TEST_F(LinkLockTest, ALoginHasALockOfItsOwn) {
  bool waited = false;
  const LoginLock login([&waited] { waited = true; });
  const LinkLock link;
  EXPECT_FALSE(IsFree(std::string(account_files::kFolder) + ".login.lock"));
  EXPECT_FALSE(waited);
  EXPECT_THAT(Log(), IsEmpty());
}

// Takes the three seconds of silence.
TEST_F(LinkLockTest, ALoginThatWaitsSaysSoAndGoesOnWhenTheOtherEnds) {
  std::optional<LoginLock> other;
  other.emplace(nullptr);
  const LoginLock login([&other] { other.reset(); });
  EXPECT_THAT(LogWithPriorities(), ElementsAre("user.err login_lock Waiting for another login"));
}

TEST_F(LinkLockTest, ALoginThatAloneCannotHaveItsLockFails) {
  const std::string path = std::string(account_files::kFolder) + ".login.lock";
  hooks().open = [&path](const char* opened, int flags, mode_t mode) {
    errno = EMFILE;
    return opened == path ? -1 : interpose::RealOpen(opened, flags, mode);
  };
  EXPECT_EQ(CodeThrownBy([] { const LoginLock login(nullptr); }), kGenericError);
  EXPECT_THAT(LogWithPriorities(), ElementsAre("user.err login_lock Failed to lock file: " + path));
}

}  // namespace
}  // namespace nodelink
