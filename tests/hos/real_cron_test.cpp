// The system's own cron reads what was saved; slow, because it looks once a minute.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <json/value.h>
#include <poll.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <string>
#include <vector>

#include "base/unique_fd.h"
#include "kivo/crond.h"
#include "lab/files.h"
#include "lab/users.h"

namespace {

constexpr char kCron[] = "/usr/sbin/cron";
constexpr char kPipe[] = "/tmp/words";
constexpr std::chrono::seconds kLongestWait{150};

// `cron -f`, ended by the destructor.
class RunningCron {
 public:
  RunningCron() {
    std::string name = kCron;
    std::string foreground = "-f";
    char* const argv[] = {name.data(), foreground.data(), nullptr};
    EXPECT_EQ(posix_spawn(&pid_, kCron, nullptr, nullptr, argv, environ), 0);
  }
  RunningCron(const RunningCron&) = delete;
  RunningCron& operator=(const RunningCron&) = delete;
  ~RunningCron() {
    if (pid_ < 0) return;
    kill(pid_, SIGTERM);
    waitpid(pid_, nullptr, 0);
  }

 private:
  pid_t pid_ = -1;
};

// Reads until `end` has come, or the longest wait has passed.
std::string ReadUntil(int fd, const std::string& end) {
  const auto deadline = std::chrono::steady_clock::now() + kLongestWait;
  std::string text;
  while (!text.ends_with(end) && std::chrono::steady_clock::now() < deadline) {
    pollfd watched = {fd, POLLIN, 0};
    char block[4096];
    if (poll(&watched, 1, 1000) != 1) continue;
    const ssize_t got = read(fd, block, sizeof block);
    if (got > 0) text.append(block, static_cast<std::size_t>(got));
  }
  return text;
}

// cron becomes the user of each job, even if that is its own.
TEST(RealCron, GivesTheProgramItsWordsAsTheyAre) {
  if (!lab::HasOtherUsers()) GTEST_SKIP() << "the lab of an ordinary user has no other users";
  if (access(kCron, X_OK) != 0) GTEST_SKIP() << "no cron here";
  const std::vector<std::string> words = {
      "it's", "100%", "a\\%b",  "a\\\\%b", "a\\\\\\%b", "\\",       "\\\\", "\\\\\\", "\\%",
      "%%",   "'%'",  "\\'\\'", "$(id)",   "~",         "\xc3\xbc", "",     "#",      "the end"};
  Json::Value job;
  job["name"] = "job";
  job["period"] = "crontab";
  job["crontab"] = "* * * * *";
  job["user"] = "root";
  for (const char* word : {"/bin/sh", "-c", "printf '%s\\n' \"$@\" >/tmp/words", "sh"}) {
    job["cmd_list"].append(word);
  }
  std::string expected;
  for (const std::string& word : words) {
    job["cmd_list"].append(word);
    expected += word + "\n";
  }
  Json::Value jobs(Json::arrayValue);
  jobs.append(job);
  ASSERT_EQ(mkfifo(kPipe, 0600), 0);
  const base::UniqueFd pipe(open(kPipe, O_RDWR | O_NONBLOCK | O_CLOEXEC));
  ASSERT_TRUE(pipe);
  ASSERT_TRUE(KIVO::KIVOCrond::ConfigManager("words", false).Save(jobs));
  const RunningCron cron;
  EXPECT_EQ(ReadUntil(pipe.get(), "the end\n"), expected);
}

}  // namespace
