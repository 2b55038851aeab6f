#include "platform/report_job.h"

#include <string>

#include "core/json.h"
#include "tests/support/session_fixture.h"

namespace nodelink {
namespace {

using fake_hos::Call;
using session::NamedText;
using testing::ElementsAre;
using testing::IsEmpty;

class ReportJobTest : public SessionTest {
 protected:
  // The saved job list as text; "null" when there is none.
  static std::string SavedJobs() { return json::toString(platform().crond_lists["zomi"]); }

  static std::string JobsWith(const std::string& schedule) {
    return R"([{"cmd_list":["/usr/kivo/bin/nodelink","--report_info"],"crontab":")" + schedule +
           R"(","name":"job","period":"crontab","user":"root"}])";
  }
};

TEST_F(ReportJobTest, IsOneJobWithTheSchedule) {
  EXPECT_TRUE(ReportJob().Save("5 4~6 * * mon~fri"));
  EXPECT_EQ(SavedJobs(), JobsWith("5 4~6 * * mon~fri"));
  EXPECT_THAT(platform().calls("ConfigManager::ConfigManager"),
              ElementsAre(Call{"ConfigManager::ConfigManager", {"zomi", "false"}}));
  EXPECT_THAT(platform().calls("ConfigManager::Save"),
              ElementsAre(Call{"ConfigManager::Save", {"zomi"}}));
  EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(ReportJobTest, AJobThatCannotBeSavedIsFalse) {
  platform().FailNext("ConfigManager::Save");
  EXPECT_FALSE(ReportJob().Save("1 2 * * *"));
}

class HostileJobScheduleTest : public ReportJobTest,
                               public testing::WithParamInterface<NamedText> {};

TEST_P(HostileJobScheduleTest, IsForTheCronLibraryToRefuse) {
  EXPECT_FALSE(ReportJob().Save(GetParam().text));
  EXPECT_EQ(platform().call_count("ConfigManager::Save"), 1U);
  EXPECT_EQ(SavedJobs(), "null");
}

INSTANTIATE_TEST_SUITE_P(All, HostileJobScheduleTest,
                         testing::ValuesIn(std::vector<NamedText>{
                             {"Reboot", "@reboot"},
                             {"SixFields", "1 2 3 4 5 root"},
                             {"Command", "* * * * * root rm"},
                             {"Semicolon", "1;rm 2 * * *"},
                             {"Huge", std::string(10'000, '1')},
                         }),
                         session::NameOf);

TEST_F(ReportJobTest, RemovingIsTheCronLibrarys) {
  platform().crond_lists["zomi"] = 1;
  platform().crond_lists["other"] = 1;
  EXPECT_TRUE(RemoveReportJob());
  EXPECT_EQ(platform().crond_lists.count("zomi"), 0U);
  EXPECT_EQ(platform().crond_lists.count("other"), 1U);
  platform().FailNext("ConfigManager::Remove");
  EXPECT_FALSE(RemoveReportJob());
}

TEST_F(ReportJobTest, TheOlderScheduleLosesItsEntryForTheCommand) {
  platform().schedule_entries = {"/usr/kivo/bin/nodelink --report_info", "/usr/kivo/bin/other"};
  RemoveOldReportSchedule();
  EXPECT_THAT(platform().schedule_entries, ElementsAre("/usr/kivo/bin/other"));
  EXPECT_THAT(platform().calls(),
              ElementsAre(Call{"KIVOScheduleRemove", {"/usr/kivo/bin/nodelink --report_info"}}));
}

TEST_F(ReportJobTest, AnOlderEntryThatCannotBeRemovedIsIgnored) {
  platform().FailNext("KIVOScheduleRemove");
  RemoveOldReportSchedule();
  EXPECT_THAT(Log(), IsEmpty());
}

struct Switch {
  const char* name;
  const char* content;
  bool disabled;
};

class ReportJobSwitchTest : public ReportJobTest, public testing::WithParamInterface<Switch> {};

TEST_P(ReportJobSwitchTest, OnlyYesSwitchesTheReportOff) {
  test_files::Write("/etc/kivoinfo.conf", GetParam().content);
  EXPECT_EQ(IsReportDisabled(), GetParam().disabled);
  EXPECT_THAT(platform().calls(),
              ElementsAre(Call{"KLIBCFileCheckKeyValue",
                               {"/etc/kivoinfo.conf", "zomi_disable_report", "yes", "0"}}));
}

INSTANTIATE_TEST_SUITE_P(
    All, ReportJobSwitchTest,
    testing::Values(Switch{"Yes", "zomi_disable_report=\"yes\"\n", true},
                    Switch{"No", "zomi_disable_report=\"no\"\n", false},
                    Switch{"True", "zomi_disable_report=\"true\"\n", false},
                    Switch{"UpperCase", "zomi_disable_report=\"YES\"\n", false},
                    Switch{"Blank", "zomi_disable_report=\"yes \"\n", false},
                    Switch{"Empty", "zomi_disable_report=\"\"\n", false},
                    Switch{"OtherKey", "other=\"yes\"\n", false}, Switch{"Nothing", "", false}),
    [](const auto& test) { return test.param.name; });

TEST_F(ReportJobTest, WithoutTheSystemsFileTheReportIsOn) { EXPECT_FALSE(IsReportDisabled()); }

TEST_F(ReportJobTest, ASwitchThatCannotBeReadLeavesTheReportOn) {
  test_files::Write("/etc/kivoinfo.conf", "zomi_disable_report=\"yes\"\n");
  platform().FailNext("KLIBCFileCheckKeyValue");
  EXPECT_FALSE(IsReportDisabled());
}

}  // namespace
}  // namespace nodelink
