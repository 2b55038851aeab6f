// The system's own cron starts the report from the file that --update wrote.
#include <chrono>

#include "lab/users.h"
#include "tests/e2e/device_fixture.h"

namespace {

// cron becomes the user of each job, even if that is its own.
TEST_F(DeviceTest, CronStartsTheReport) {
  if (!lab::HasOtherUsers()) GTEST_SKIP() << "the lab of an ordinary user has no other users";
  const devcloud::Link link = LinkDevice();
  test_files::Write(kRecord,
                    test_files::Read(kRecord) + "zomiID=\"" + kEmail +
                        "\"\nreport_cron_timestring=\"* * * * *\"\n",
                    0600);
  ASSERT_EQ(Run({"--update"}).exit_status, 0);
  EXPECT_THAT(test_files::Read(kReportJob),
              testing::HasSubstr("* * * * * root '/usr/kivo/bin/nodelink' '--report_info'\n"));

  lab::BackgroundProcess cron({"/usr/sbin/cron", "-f"});
  const auto reports = cloud_.log().WaitAndRead(0, "/device/api/report", std::chrono::seconds(150));
  cron.Terminate();
  ASSERT_FALSE(reports.empty()) << "cron never started the report";
  EXPECT_THAT(reports[0].request.body, testing::HasSubstr("id=" + link.user_id));
  EXPECT_THAT(reports[0].answer, testing::HasSubstr("good"));
}

}  // namespace
