// The program as it is installed, on the reference platform.

#include <ctime>
#include <string>
#include <vector>

#include "lab/process.h"
#include "lab/users.h"
#include "tests/cli/usage.h"
#include "tests/support/child.h"
#include "tests/support/platform_fixture.h"

namespace {

using testing::Contains;
using testing::IsEmpty;

class ProgramTest : public PlatformTest {
 protected:
  static lab::ProcessResult Nodelink(std::vector<std::string> options,
                                     const lab::ProcessOptions& how = {}) {
    options.insert(options.begin(), "/usr/kivo/bin/nodelink");
    return lab::RunProcess(options, how);
  }

  static void WriteFreshRecord() {
    WriteRecord("zomiID=\"ann@example.com\"\nhs_auth_key=\"key\"\nlast_query_time=\"" +
                std::to_string(std::time(nullptr)) + "\"\n");
  }

  static constexpr char kFreshAccount[] =
      R"({"activated":false,"auth_key":"key","country":"","critical_release":false,)"
      R"("disabled":false,"email":"ann@example.com","enews":false,"enews_local_promotion":false,)"
      R"("full_name":"","notify_language":"","timezone":""})"
      "\n";
};

TEST_F(ProgramTest, WithoutAnythingToDoPrintsTheUsage) {
  for (const std::vector<std::string>& options :
       std::vector<std::vector<std::string>>{{}, {"-h"}, {"--help"}, {"-c"}, {"word"}, {"--"}}) {
    const lab::ProcessResult result = Nodelink(options);
    EXPECT_EQ(result.out, kUsage);
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(result.exit_status, 0);
  }
}

TEST_F(ProgramTest, UnknownOptionIsComplainedOfAndThenIgnored) {
  const lab::ProcessResult result = Nodelink({"--bogus"});
  EXPECT_EQ(result.out, kUsage);
  EXPECT_EQ(result.err, "/usr/kivo/bin/nodelink: unrecognized option '--bogus'\n");
  EXPECT_EQ(result.exit_status, 0);
}

TEST_F(ProgramTest, FreshRecordIsPrinted) {
  WriteFreshRecord();
  for (const std::vector<std::string>& options : std::vector<std::vector<std::string>>{
           {"-q"}, {"--query_account"}, {"-q", "-c"}, {"--cache", "--que"}}) {
    const lab::ProcessResult result = Nodelink(options);
    EXPECT_EQ(result.out, kFreshAccount);
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(result.exit_status, 0);
  }
  EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(ProgramTest, ServerThatDoesNotAnswerIsAFailedQuery) {
  const lab::ProcessResult result = Nodelink({"--query_account"});
  EXPECT_EQ(result.out, "Query account failed");
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(result.exit_status, 0);
  EXPECT_FALSE(HasRecord());
  EXPECT_THAT(Log(), Contains(testing::StartsWith("zomi_account_query_info Failed to send https "
                                                  "request. err=[0x")));
}

TEST_F(ProgramTest, FailedReportExitsWith255) {
  WriteFreshRecord();
  const lab::ProcessResult result = Nodelink({"--report_info"});
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.exit_status, 255);
  EXPECT_THAT(LogWithPriorities(),
              Contains("user.err nodelink Failed to report Zomi info, code=4"));
}

TEST_F(ProgramTest, ReportWithoutAnAccountExitsWithZero) {
  const lab::ProcessResult result = Nodelink({"-r"});
  EXPECT_EQ(result.out + result.err, "");
  EXPECT_EQ(result.exit_status, 0);
  EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(ProgramTest, UserWithoutPrivilegesIsToldNothingOfTheAccount) {
  if (!lab::HasOtherUsers()) GTEST_SKIP() << "there is no other user in a lab of an ordinary user";
  WriteFreshRecord();
  const lab::ProcessResult result = Nodelink({"-q", "-c"}, {.uid = 1026, .gid = 100});
  EXPECT_EQ(result.out, "Query account failed");
  EXPECT_EQ(result.exit_status, 0);
  EXPECT_THAT(LogWithPriorities(),
              Contains("auth.err user ERROR: setresgid(-1, 0, -1) [Operation not "
                       "permitted]"));
}

}  // namespace
