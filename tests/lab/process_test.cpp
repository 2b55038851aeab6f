#include "lab/process.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <stdexcept>
#include <string>
#include <system_error>

namespace lab {
namespace {

using ::testing::HasSubstr;

TEST(RunProcess, GivesStatusAndBothOutputs) {
  const ProcessResult result =
      RunProcess({"sh", "-c", "cat; echo wrong >&2; exit 7"}, {.stdin_text = "some input"});
  EXPECT_EQ(result.exit_status, 7);
  EXPECT_EQ(result.signal, 0);
  EXPECT_FALSE(result.timed_out);
  EXPECT_EQ(result.out, "some input");
  EXPECT_EQ(result.err, "wrong\n");
}

TEST(RunProcess, GivesTheSignalThatEndedIt) {
  const ProcessResult result = RunProcess({"sh", "-c", "kill -KILL $$"});
  EXPECT_EQ(result.exit_status, -1);
  EXPECT_EQ(result.signal, SIGKILL);
}

TEST(RunProcess, SurvivesAProgramThatDoesNotReadItsInput) {
  EXPECT_EQ(RunProcess({"true"}, {.stdin_text = std::string(1 << 20, 'x')}).exit_status, 0);
}

TEST(RunProcess, ReadsMoreThanAPipeHolds) {
  const ProcessResult result = RunProcess({"head", "-c", "1000000", "/dev/zero"});
  EXPECT_EQ(result.out.size(), 1'000'000U);
}

TEST(RunProcess, ThrowsWhenThereIsNoSuchProgram) {
  try {
    (void)RunProcess({"/nowhere/at/all"});
    FAIL() << "nothing thrown";
  } catch (const std::system_error& error) {
    EXPECT_EQ(error.code().value(), ENOENT);
    EXPECT_THAT(error.what(), HasSubstr("/nowhere/at/all"));
  }
  EXPECT_THROW((void)RunProcess({}), std::invalid_argument);
}

TEST(RunProcess, KillsWhatOutlivesTheTimeLimit) {
  const ProcessResult result = RunProcess({"sh", "-c", "echo begun; sleep 1000 & wait"},
                                          {.time_limit = std::chrono::milliseconds(300)});
  EXPECT_TRUE(result.timed_out);
  EXPECT_EQ(result.signal, SIGKILL);
}

TEST(RunProcess, DoesNotWaitForWhatItLeavesBehind) {
  const ProcessResult result = RunProcess({"sh", "-c", "sleep 1000 & echo done"});
  EXPECT_EQ(result.out, "done\n");
  EXPECT_FALSE(result.timed_out);
}

TEST(RunProcess, GivesTheEnvironmentAndFolder) {
  const ProcessResult result =
      RunProcess({"/usr/bin/env"}, {.environment = std::vector<std::string>{
                                        "ONLY=this one, longer than a string holds in itself"}});
  EXPECT_EQ(result.out, "ONLY=this one, longer than a string holds in itself\n");
  EXPECT_EQ(RunProcess({"pwd"}, {.working_folder = "/usr"}).out, "/usr\n");
}

TEST(RunProcess, PassesNoOtherDescriptorOn) {
  EXPECT_EQ(RunProcess({"ls", "/proc/self/fd"}).out, "0\n1\n2\n3\n");  // 3: the folder itself
}

TEST(RunProcess, TakesAnotherUsersIds) {
  if (RunProcess({"cat", "/proc/self/uid_map"}).out.find("4294967295") == std::string::npos) {
    GTEST_SKIP() << "an ordinary user's lab has no other users";
  }
  const ProcessResult result = RunProcess(
      {"sh", "-c", "grep -E '^(Uid|Gid|Groups)' /proc/self/status"}, {.uid = 1026, .gid = 100});
  EXPECT_EQ(result.out, "Uid:\t1026\t1026\t1026\t1026\nGid:\t100\t100\t100\t100\nGroups:\t \n");
}

TEST(BackgroundProcess, TalksBothWays) {
  BackgroundProcess process({"sh", "-c", "echo noise; echo ready 1; read x; echo got $x; cat"});
  EXPECT_EQ(process.WaitForLine("ready"), "ready 1");
  process.Write("a word\n");
  EXPECT_EQ(process.WaitForLine(), "got a word");
  process.Write("the rest");
  process.CloseStdin();
  const ProcessResult result = process.Wait();
  EXPECT_EQ(result.exit_status, 0);
  EXPECT_EQ(result.out, "noise\nready 1\ngot a word\nthe rest");
}

TEST(BackgroundProcess, TellsWhenTheLineNeverComes) {
  BackgroundProcess ends({"sh", "-c", "echo something else"});
  EXPECT_THROW(ends.WaitForLine("ready"), std::runtime_error);
  BackgroundProcess stays({"cat"}, {.time_limit = std::chrono::milliseconds(100)});
  EXPECT_THROW(stays.WaitForLine("ready"), std::runtime_error);
}

TEST(BackgroundProcess, EndsWithItsOwner) {
  pid_t pid = 0;
  {
    const BackgroundProcess process({"sleep", "1000"});
    pid = process.pid();
    EXPECT_EQ(kill(pid, 0), 0);
  }
  EXPECT_EQ(kill(pid, 0), -1);
  EXPECT_EQ(errno, ESRCH);
}

TEST(BackgroundProcess, TerminateLetsItEndByItself) {
  BackgroundProcess process({"sh", "-c", "trap 'echo bye; exit 3' TERM; echo ready; read x"});
  process.WaitForLine("ready");
  const ProcessResult result = process.Terminate();
  EXPECT_EQ(result.exit_status, 3);
  EXPECT_EQ(result.out, "ready\nbye\n");
  EXPECT_FALSE(result.timed_out);
  process.Signal(SIGKILL);  // nothing left to hit
}

TEST(BackgroundProcess, IsLeftAloneByAForkedChild) {
  BackgroundProcess process({"cat"});
  EXPECT_EXIT(std::exit(0), ::testing::ExitedWithCode(0), "");
  process.Write("still there\n");
  EXPECT_EQ(process.WaitForLine(), "still there");
}

}  // namespace
}  // namespace lab
