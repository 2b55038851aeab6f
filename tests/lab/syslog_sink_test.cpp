#include "lab/syslog_sink.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "lab/process.h"

namespace lab {
namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::IsEmpty;
using ::testing::SizeIs;

TEST(ParseLogLine, ReadsWhatTheCLibraryWrites) {
  const LogLine line = ParseLogLine("<35>Nov  1 02:03:04 nodelink[42]: user:17 a: b [c]: d");
  EXPECT_EQ(line.facility, LOG_AUTH);
  EXPECT_EQ(line.severity, LOG_ERR);
  EXPECT_EQ(line.tag, "nodelink");
  EXPECT_EQ(line.pid, 42);
  EXPECT_EQ(line.text, "user:17 a: b [c]: d");
  EXPECT_EQ(PriorityName(line), "auth.err");
}

TEST(ParseLogLine, ReadsALineWithoutPid) {
  const LogLine line = ParseLogLine("<13>Nov 21 02:03:04 a tag: text");
  EXPECT_EQ(line.tag, "a tag");
  EXPECT_EQ(line.pid, 0);
  EXPECT_EQ(PriorityName(line), "user.notice");
}

TEST(ParseLogLine, KeepsAnythingElseAsText) {
  for (const std::string raw : {"", "<", "<>", "<13>", "<13", "<x>Nov 21 02:03:04 t: x",
                                "<99999999999>Nov 21 02:03:04 t: x", "<-1>Nov 21 02:03:04 t: x",
                                "<13>Nov 21 02:03:04 no colon", "<13>short: x", "plain"}) {
    const LogLine line = ParseLogLine(raw);
    EXPECT_EQ(line.text, raw);
    EXPECT_EQ(line.raw, raw);
    EXPECT_EQ(line.tag, "");
    EXPECT_EQ(PriorityName(line), "user.notice");
  }
}

class SyslogSinkTest : public ::testing::Test {
 protected:
  SyslogSinkTest() {
    unsetenv("LAB_LOG_COLLECT");
    openlog("sink_test", LOG_PID, LOG_USER);
  }
  ~SyslogSinkTest() override { closelog(); }
  SyslogSinkTest(const SyslogSinkTest&) = delete;
  SyslogSinkTest& operator=(const SyslogSinkTest&) = delete;

  static std::vector<std::string> Texts(SyslogSink& sink) {
    std::vector<std::string> texts;
    for (const LogLine& line : sink.Lines()) texts.push_back(line.text);
    return texts;
  }
};

TEST_F(SyslogSinkTest, GivesAllLinesInOrder) {
  SyslogSink sink;
  for (int i = 0; i < 500; ++i) syslog(LOG_ERR, "line %d", i);
  syslog(LOG_AUTH | LOG_NOTICE, "the last");
  const std::vector<LogLine> lines = sink.Lines();
  ASSERT_THAT(lines, SizeIs(501));
  for (std::size_t i = 0; i < 500; ++i) {
    EXPECT_EQ(lines[i].text, "line " + std::to_string(i));
  }
  EXPECT_EQ(lines[0].facility, LOG_USER);
  EXPECT_EQ(lines[0].severity, LOG_ERR);
  EXPECT_EQ(lines[0].tag, "sink_test");
  EXPECT_EQ(lines[0].pid, getpid());
  EXPECT_EQ(PriorityName(lines[500]), "auth.notice");
}

TEST_F(SyslogSinkTest, ForgetsWhatIsCleared) {
  SyslogSink sink;
  EXPECT_THAT(sink.Lines(), IsEmpty());
  syslog(LOG_ERR, "one");
  sink.Clear();
  EXPECT_THAT(sink.Lines(), IsEmpty());
  syslog(LOG_ERR, "two");
  EXPECT_THAT(Texts(sink), ElementsAre("two"));
}

TEST_F(SyslogSinkTest, KeepsLineBreaksAndLongTexts) {
  SyslogSink sink;
  const std::string text(100'000, 'x');
  syslog(LOG_ERR, "%s", text.c_str());
  syslog(LOG_ERR, "a\nb");
  EXPECT_THAT(Texts(sink), ElementsAre(text, "a\nb"));
}

TEST_F(SyslogSinkTest, ServesManyThreads) {
  SyslogSink sink;
  std::vector<std::thread> threads;
  threads.reserve(4);
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&sink] {
      for (int n = 0; n < 50; ++n) {
        syslog(LOG_ERR, "x");
        EXPECT_FALSE(sink.Lines().empty());
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_THAT(sink.Lines(), SizeIs(200));
}

TEST_F(SyslogSinkTest, AnyUserMayLog) {
  SyslogSink sink;
  EXPECT_EQ(RunProcess({"logger", "-t", "other", "hello"}).exit_status, 0);
  EXPECT_EQ(fs::status("/dev/log").permissions(), fs::perms(0666));
  EXPECT_THAT(Texts(sink), ElementsAre("hello"));
}

TEST_F(SyslogSinkTest, AnswersThoughTheNameIsGone) {
  SyslogSink sink;
  syslog(LOG_ERR, "before");
  fs::remove("/dev/log");
  EXPECT_THAT(Texts(sink), ElementsAre("before"));
}

TEST_F(SyslogSinkTest, TakesTheNameOnlyWhereNobodyReads) {
  {
    const SyslogSink sink;
    EXPECT_THROW(SyslogSink another, std::system_error);
  }
  EXPECT_FALSE(fs::exists("/dev/log"));
  EXPECT_EXIT(
      {
        const SyslogSink left_behind;
        _exit(0);
      },
      ::testing::ExitedWithCode(0), "");
  EXPECT_TRUE(fs::exists("/dev/log"));
  SyslogSink sink;
  syslog(LOG_ERR, "here");
  EXPECT_THAT(Texts(sink), ElementsAre("here"));
}

TEST_F(SyslogSinkTest, RefusesANameThatCannotBeASocket) {
  EXPECT_THROW(SyslogSink sink("/tmp/" + std::string(200, 'x')), std::invalid_argument);
  EXPECT_THROW(SyslogSink sink("/nowhere/log"), std::system_error);
}

TEST_F(SyslogSinkTest, IsDeadInAForkedChild) {
  SyslogSink sink;
  (void)sink.Lines();  // its thread has started, and waits again: no lock of it is inherited
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    syslog(LOG_ERR, "from the child");
    try {
      (void)sink.Lines();
    } catch (const std::logic_error&) {
      _exit(42);
    }
    _exit(0);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(WEXITSTATUS(status), 42);
  EXPECT_THAT(Texts(sink), ElementsAre("from the child"));
}

TEST_F(SyslogSinkTest, LeavesEveryLineInTheCollection) {
  fs::create_directory("/tmp/collected");
  setenv("LAB_LOG_COLLECT", "/tmp/collected", 1);
  {
    SyslogSink sink;
    syslog(LOG_ERR, "cleared\nlater");
    sink.Clear();
    syslog(LOG_ERR, "kept");
  }
  const std::vector<fs::path> files{fs::directory_iterator("/tmp/collected"), {}};
  ASSERT_THAT(files, SizeIs(1));
  EXPECT_THAT(files[0].filename().string(), ::testing::StartsWith(std::to_string(getpid()) + "-"));
  std::ifstream file(files[0]);
  std::string first;
  std::string second;
  std::string none;
  ASSERT_TRUE(std::getline(file, first) && std::getline(file, second));
  EXPECT_THAT(first, EndsWith("]: cleared\\nlater"));
  EXPECT_THAT(second, EndsWith("]: kept"));
  EXPECT_FALSE(std::getline(file, none));
}

TEST(LabSyslogd, WritesReadableLinesAsTheyCome) {
  BackgroundProcess daemon({LAB_SYSLOGD, "/tmp/messages"});
  EXPECT_EQ(daemon.WaitForLine(), "ready");
  openlog("syslogd_test", 0, LOG_USER);
  syslog(LOG_AUTH | LOG_ERR, "a message");
  closelog();
  EXPECT_EQ(daemon.Terminate().exit_status, 0);
  std::ifstream file("/tmp/messages");
  const std::string text{std::istreambuf_iterator<char>(file), {}};
  EXPECT_THAT(text, ::testing::MatchesRegex(
                        "[0-9]{2}:[0-9]{2}:[0-9]{2} auth.err syslogd_test: a message\n"));
  EXPECT_FALSE(fs::exists("/dev/log"));
}

TEST(LabSyslogd, SaysWhatIsWrong) {
  EXPECT_EQ(RunProcess({LAB_SYSLOGD}).exit_status, 2);
  const ProcessResult result = RunProcess({LAB_SYSLOGD, "/nowhere/messages"});
  EXPECT_EQ(result.exit_status, 1);
  EXPECT_EQ(result.err, "lab-syslogd: cannot write to /nowhere/messages\n");
}

}  // namespace
}  // namespace lab
