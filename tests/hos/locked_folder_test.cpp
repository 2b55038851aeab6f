// Writers that meet, die or are hindered never leave anything but a whole file.
#include "hos/linux/locked_folder.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <functional>
#include <string>
#include <vector>

#include "base/unique_fd.h"
#include "klibc/keyvalue.h"
#include "lab/files.h"
#include "lab/users.h"

namespace hos_linux {
namespace {

constexpr char kFolder[] = "/tmp/atomic";
constexpr char kFile[] = "/tmp/atomic/record.conf";
constexpr char kLineFormat[] = "%s=\"%s\"\n";

pid_t InChild(const std::function<int()>& work) {
  const pid_t child = fork();
  if (child == 0) _exit(work());
  return child;
}

int StatusOf(pid_t child) {
  int status = 0;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  return status;
}

std::string Get(const std::string& key) {
  char buffer[2048] = "";
  KLIBCFileGetKeyValue(kFile, key.c_str(), buffer, sizeof buffer, 0);
  return buffer;
}

class AtomicReplace : public testing::Test {
 protected:
  void SetUp() override {
    test_files::Remove(kFolder);
    test_files::MakeFolder(kFolder, 0700);
  }
};

TEST_F(AtomicReplace, SixtyFourWritersOfTheirOwnKeysLoseNone) {
  constexpr int kWriters = 64;
  std::vector<pid_t> writers;
  for (int i = 0; i < kWriters; ++i) {
    const std::string number = std::to_string(i);
    writers.push_back(InChild([&number] {
      const std::string key = "key" + number;
      return KLIBCFileSetKeyValue(kFile, key.c_str(), number.c_str(), kLineFormat) < 0 ? 1 : 0;
    }));
  }
  for (const pid_t writer : writers) {
    EXPECT_EQ(StatusOf(writer), 0);
  }
  for (int i = 0; i < kWriters; ++i) {
    EXPECT_EQ(Get("key" + std::to_string(i)), std::to_string(i));
  }
  EXPECT_EQ(test_files::NamesIn(kFolder), std::vector<std::string>{"record.conf"});
}

// Sets the key to longer and longer runs of one letter until it is killed.
int WriteForever(int ready) {
  for (unsigned round = 0;; ++round) {
    const std::string value(1000 + round % 1000, static_cast<char>('a' + round % 26));
    if (KLIBCFileSetKeyValue(kFile, "key", value.c_str(), kLineFormat) < 0) return 1;
    if (write(ready, "x", 1) != 1) return 1;
  }
}

TEST_F(AtomicReplace, AKilledWriterLeavesAWholeFile) {
  for (int round = 0; round < 100; ++round) {
    int ends[2] = {-1, -1};
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    const base::UniqueFd reader(ends[0]);
    base::UniqueFd writer(ends[1]);
    const pid_t child = InChild([&] { return WriteForever(writer.get()); });
    char mark = 0;
    for (int i = 0; i <= round % 5; ++i) {
      ASSERT_EQ(read(reader.get(), &mark, 1), 1);
    }
    ASSERT_EQ(kill(child, SIGKILL), 0);
    EXPECT_EQ(WTERMSIG(StatusOf(child)), SIGKILL);

    const std::string value = Get("key");
    EXPECT_EQ(value, std::string(value.size(), value[0])) << "round " << round;
    EXPECT_GE(value.size(), 1000U);
    EXPECT_EQ(test_files::Read(kFile), "key=\"" + value + "\"\n");
  }
  ASSERT_GE(KLIBCFileSetKeyValue(kFile, "key", "end", kLineFormat), 0);
  EXPECT_EQ(test_files::NamesIn(kFolder), std::vector<std::string>{"record.conf"});
}

TEST_F(AtomicReplace, ClearsWhatADeadWriterOfThisFileLeft) {
  test_files::Write("/tmp/atomic/.record.conf.tmp-0123456789abcdef", "half");
  test_files::Write("/tmp/atomic/.other.conf.tmp-0123456789abcdef", "half");
  ASSERT_GE(KLIBCFileSetKeyValue(kFile, "key", "v", kLineFormat), 0);
  EXPECT_EQ(test_files::NamesIn(kFolder),
            (std::vector<std::string>{".other.conf.tmp-0123456789abcdef", "record.conf"}));
}

TEST_F(AtomicReplace, KeepsModeAndOwner) {
  if (!lab::HasOtherUsers()) GTEST_SKIP() << "the lab of an ordinary user has no other users";
  test_files::Write(kFile, "key=\"1\"\n", 0640);
  ASSERT_EQ(chown(kFile, 1024, 100), 0);
  ASSERT_GE(KLIBCFileSetKeyValue(kFile, "key", "2", kLineFormat), 0);
  struct stat info = {};
  ASSERT_EQ(stat(kFile, &info), 0);
  EXPECT_EQ(info.st_mode & 07777, 0640U);
  EXPECT_EQ(info.st_uid, 1024U);
  EXPECT_EQ(info.st_gid, 100U);
}

TEST_F(AtomicReplace, TheUmaskChangesNothing) {
  const mode_t old = umask(0777);
  const int result = KLIBCFileSetKeyValue(kFile, "key", "v", kLineFormat);
  umask(old);
  EXPECT_GE(result, 0);
  EXPECT_EQ(test_files::ModeOf(kFile), 0600U);
}

TEST_F(AtomicReplace, AReaderKeepsTheOldFileWhileANewOneComes) {
  test_files::Write(kFile, "key=\"old\"\n");
  const base::UniqueFd reader(open(kFile, O_RDONLY | O_CLOEXEC));
  ASSERT_GE(KLIBCFileSetKeyValue(kFile, "key", "new", kLineFormat), 0);
  char text[32] = "";
  EXPECT_EQ(read(reader.get(), text, sizeof text - 1), 10);
  EXPECT_STREQ(text, "key=\"old\"\n");
}

TEST_F(AtomicReplace, ADiskThatIsFullLeavesTheOldFileAndNothingElse) {
  test_files::Write(kFile, "key=\"old\"\n");
  const pid_t child = InChild([] {
    const rlimit limit = {64, 64};
    if (signal(SIGXFSZ, SIG_IGN) == SIG_ERR) return 3;
    if (setrlimit(RLIMIT_FSIZE, &limit) != 0) return 2;
    const std::string value(500, 'x');
    return KLIBCFileSetKeyValue(kFile, "key", value.c_str(), kLineFormat) < 0 ? 0 : 1;
  });
  EXPECT_EQ(StatusOf(child), 0);
  EXPECT_EQ(test_files::Read(kFile), "key=\"old\"\n");
  EXPECT_EQ(test_files::NamesIn(kFolder), std::vector<std::string>{"record.conf"});
}

TEST_F(AtomicReplace, WaitsForAnotherWriter) {
  const base::UniqueFd folder(open(kFolder, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  ASSERT_EQ(flock(folder.get(), LOCK_EX), 0);
  int ends[2] = {-1, -1};
  ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
  const base::UniqueFd reader(ends[0]);
  base::UniqueFd writer(ends[1]);
  const pid_t child = InChild([&] {
    if (write(writer.get(), "x", 1) != 1) return 2;
    return KLIBCFileSetKeyValue(kFile, "key", "v", kLineFormat) < 0 ? 1 : 0;
  });
  char mark = 0;
  ASSERT_EQ(read(reader.get(), &mark, 1), 1);
  EXPECT_FALSE(test_files::Exists(kFile));
  ASSERT_EQ(flock(folder.get(), LOCK_UN), 0);
  EXPECT_EQ(StatusOf(child), 0);
  EXPECT_EQ(Get("key"), "v");
}

TEST_F(AtomicReplace, NeverGrowsAFileBeyondWhatCanBeRead) {
  const std::string big(std::size_t{900} * 1024, 'x');
  ASSERT_GE(KLIBCFileSetKeyValue(kFile, "a", big.c_str(), kLineFormat), 0);
  EXPECT_LT(KLIBCFileSetKeyValue(kFile, "b", big.c_str(), kLineFormat), 0);
  EXPECT_EQ(Get("a"), std::string(2047, 'x'));
  test_files::Write(kFile, std::string(std::size_t{2} * 1024 * 1024, '\n'));
  char buffer[8] = "";
  EXPECT_LT(KLIBCFileGetKeyValue(kFile, "a", buffer, sizeof buffer, 0), 0);
  EXPECT_LT(KLIBCFileSetKeyValue(kFile, "a", "v", kLineFormat), 0);
}

TEST_F(AtomicReplace, APipeInPlaceOfTheFileDoesNotHang) {
  ASSERT_EQ(mkfifo(kFile, 0600), 0);
  char buffer[8] = "";
  EXPECT_LT(KLIBCFileGetKeyValue(kFile, "key", buffer, sizeof buffer, 0), 0);
  EXPECT_LT(KLIBCFileSetKeyValue(kFile, "key", "v", kLineFormat), 0);
}

}  // namespace
}  // namespace hos_linux
