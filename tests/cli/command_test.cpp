#include <getopt.h>

#include <array>
#include <filesystem>
#include <string>
#include <utility>

#include "cli/nodelink.h"
#include "core/json.h"
#include "lab/users.h"
#include "tests/support/child.h"
#include "tests/support/session_fixture.h"

namespace nodelink {
namespace {

using session::kLinkedRecord;
using session::kLogoutPath;
using session::kNow;
using session::kReportPath;
using testing::ElementsAre;
using testing::EndsWith;
using testing::IsEmpty;
using testing::StartsWith;

// What a run of the command came to.
struct Outcome {
  int status = 0;
  std::string output;
};

Outcome RunNodelink(std::string option) {
  std::string program = "nodelink";
  std::array<char*, 3> arguments = {program.data(), option.data(), nullptr};
  optind = 0;  // the parser starts anew
  testing::internal::CaptureStdout();
  const int status = RunCommand(2, arguments.data());
  return {status, testing::internal::GetCapturedStdout()};
}

class CommandTest : public SessionTest {
 protected:
  CommandTest() {
    WriteRecord(kLinkedRecord);
    WriteTokens(session::TokenFile("old", kNow));
    LetRmWork();
    server_.Answer(kReportPath, 200, R"({"code":"good"})");
    server_.Answer(kLogoutPath, 200, R"({"code":"good"})");
  }
};

TEST_F(CommandTest, ReportReachesTheServerAndPrintsNothing) {
  const Outcome outcome = RunNodelink("--report_info");
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.output, "");
  EXPECT_THAT(server_.Targets(),
              ElementsAre("POST https://account.veltrix.example/device/api/report"));
  EXPECT_EQ(platform().calls().front(), (fake_hos::Call{"KIVOScemdStatusGet", {"1"}}));
}

TEST_F(CommandTest, ReportIsSkippedInTheStateWithoutReports) {
  platform().device.scemd_states[1] = 2;
  EXPECT_EQ(RunNodelink("--report_info").status, 0);
  EXPECT_THAT(server_.requests(), IsEmpty());
  EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(CommandTest, ReportThatTheServerRefusesFails) {
  server_.Answer(kReportPath, 200, R"({"code":"account_not_found"})");
  const Outcome outcome = RunNodelink("-r");
  EXPECT_EQ(outcome.status, -1);
  EXPECT_EQ(outcome.output, "");
  EXPECT_EQ(Log().back(), "nodelink Failed to report Zomi info, code=25");
  EXPECT_FALSE(HasRecord());
}

TEST_F(CommandTest, NoticeOfALinkedDeviceAsksNoServer) {
  EXPECT_EQ(RunNodelink("--notify_logout").status, 0);
  EXPECT_EQ(platform().exec_runs.size(), 1U);
  EXPECT_EQ(platform().exec_runs.front().path, "/usr/kivo/bin/kivohosnotify");
  EXPECT_THAT(server_.requests(), IsEmpty());
}

TEST_F(CommandTest, LogoutSendsTheAccessTokenAndClearsTheDevice) {
  const Outcome outcome = RunNodelink("--logout");
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.output, "");
  EXPECT_THAT(server_.OnlyRequest(kLogoutPath).body, EndsWith("&access_token=old-access"));
  EXPECT_FALSE(HasRecord());
  EXPECT_FALSE(HasTokens());
}

TEST_F(CommandTest, LogoutThatTheServerRefusesIsPrintedAndKeepsTheAccount) {
  server_.Answer(kLogoutPath, 200, R"({"code":"badauth"})");
  const Outcome outcome = RunNodelink("--logout");
  EXPECT_EQ(outcome.status, 0);
  EXPECT_THAT(outcome.output, StartsWith("Failed to logout: Failed to logout with success code "
                                         "[code=14]\n- "));
  EXPECT_THAT(outcome.output, EndsWith("\n\n")) << "the stack's lines and the last line end";
  EXPECT_EQ(ReadRecord(), kLinkedRecord);
}

TEST_F(CommandTest, LogoutWithoutItsConfigurationIsPrinted) {
  std::filesystem::remove(session::kLoginConfigPath);
  const Outcome outcome = RunNodelink("--logout");
  EXPECT_EQ(outcome.status, 0);
  EXPECT_THAT(outcome.output, StartsWith("Failed to logout: Wrong JSON format [code=2]\n"));
  EXPECT_EQ(ReadRecord(), kLinkedRecord);
}

TEST_F(CommandTest, UpdateSavesTheJobAndPrintsNothing) {
  const Outcome outcome = RunNodelink("--update");
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.output, "");
  EXPECT_EQ(platform().crond_lists["zomi"][0]["crontab"], "1 2 * * *");
  EXPECT_THAT(server_.requests(), IsEmpty());
}

TEST_F(CommandTest, UpdateWithoutReadingTheRecordIsPrinted) {
  if (!lab::HasOtherUsers()) GTEST_SKIP() << "there is no other user to become";
  const std::string said = RunInChild([] {
    BecomeIds({1026, 1026, 1026, 100, 100, 100});
    const Outcome outcome = RunNodelink("--update");
    return std::to_string(outcome.status) + " " + outcome.output;
  });
  EXPECT_THAT(said, StartsWith("0 Failed to update crond: System error [code=6]\n"));
}

}  // namespace
}  // namespace nodelink
