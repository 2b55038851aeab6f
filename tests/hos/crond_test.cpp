#include "kivo/crond.h"

#include <gtest/gtest.h>
#include <json/value.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <vector>

#include "hos/linux/schedule.h"
#include "klibc/error.h"
#include "klibc/exec.h"
#include "lab/files.h"
#include "lab/users.h"

namespace {

constexpr char kList[] = "/etc/cron.d/kivo-zomi";
constexpr char kFacts[] = "/etc.defaults/kivoinfo.conf";
constexpr char kCrontab[] = "/etc/crontab";

Json::Value Job(const std::string& schedule, const std::vector<std::string>& words) {
  Json::Value job;
  job["name"] = "job";
  job["period"] = "crontab";
  job["crontab"] = schedule;
  job["user"] = "root";
  job["cmd_list"] = Json::arrayValue;
  for (const std::string& word : words) job["cmd_list"].append(word);
  return job;
}

Json::Value Jobs(const std::string& schedule, const std::vector<std::string>& words = {
                                                  "/usr/kivo/bin/nodelink", "--report_info"}) {
  Json::Value jobs(Json::arrayValue);
  jobs.append(Job(schedule, words));
  return jobs;
}

bool Save(const Json::Value& jobs, const std::string& name = "zomi") {
  return KIVO::KIVOCrond::ConfigManager(name, false).Save(jobs);
}

// The job lines of the list, without its head.
std::string JobLines() {
  const std::string text = test_files::Read(kList);
  const std::string last_of_head = "/sbin:/bin\n";
  return text.substr(text.find(last_of_head) + last_of_head.size());
}

// What crons make of two backslashes.
enum class Backslashes { kBecomeOne, kStayTwo };

// What cron hands to the shell: up to the first per cent sign that has no backslash before it; a
// backslash before such a sign is taken away.
std::string AsCronReads(const std::string& command, Backslashes pair) {
  std::string out;
  bool escaped = false;
  for (const char c : command) {
    if (!escaped && c == '%') break;
    const bool shortened = c == '%' || (c == '\\' && pair == Backslashes::kBecomeOne);
    if (escaped && shortened) out.pop_back();
    out += c;
    escaped = !escaped && c == '\\';
  }
  return out;
}

constexpr char kLock[] = "/usr/kivo/var/.cron.lock";

class Crond : public testing::Test {
 protected:
  void SetUp() override {
    test_files::Remove("/etc/cron.d");
    test_files::MakeFolder("/etc/cron.d");
    test_files::Write(kFacts, "serial_number=\"NL00000001A\"\n");
  }
};

TEST_F(Crond, AListIsAFileOfTheSystemsCron) {
  ASSERT_TRUE(Save(Jobs("0 9 * * 1-5")));
  EXPECT_EQ(test_files::Read(kList),
            "# Written by the platform's crond configuration; changes are overwritten.\n"
            "SHELL=/bin/sh\n"
            "PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin\n"
            "0 9 * * 1-5 root '/usr/kivo/bin/nodelink' '--report_info'\n");
  EXPECT_EQ(test_files::ModeOf(kList), 0644U);
  EXPECT_EQ(test_files::NamesIn("/etc/cron.d"), std::vector<std::string>{"kivo-zomi"});
}

TEST_F(Crond, DrawsWithTheSerialNumber) {
  ASSERT_TRUE(Save(Jobs("~ 9~16 * * 1~5")));
  const std::string first = JobLines();
  const auto expected = hos_linux::ResolveSchedule("~ 9~16 * * 1~5", "NL00000001A", "zomi/job");
  EXPECT_EQ(first, *expected + " root '/usr/kivo/bin/nodelink' '--report_info'\n");
  test_files::Write(kFacts, "serial_number=\"NL00000002A\"\n");
  ASSERT_TRUE(Save(Jobs("~ 9~16 * * 1~5")));
  EXPECT_NE(JobLines(), first);
}

TEST_F(Crond, WithoutASerialNumberOnlyPlainSchedulesWork) {
  test_files::Write(kFacts, "");
  EXPECT_FALSE(Save(Jobs("~ * * * *")));
  EXPECT_TRUE(Save(Jobs("5 * * * *")));
}

TEST_F(Crond, TheSameListIsLeftUntouched) {
  ASSERT_TRUE(Save(Jobs("~ 9~16 * * 1~5")));
  const ino_t inode = test_files::InodeOf(kList);
  ASSERT_TRUE(Save(Jobs("~ 9~16 * * 1~5")));
  EXPECT_EQ(test_files::InodeOf(kList), inode);
  ASSERT_EQ(chmod(kList, 0666), 0);
  ASSERT_TRUE(Save(Jobs("~ 9~16 * * 1~5")));
  EXPECT_EQ(test_files::ModeOf(kList), 0644U);
}

TEST_F(Crond, SeveralJobsAreSeveralLines) {
  Json::Value jobs = Jobs("0 1 * * *");
  jobs.append(Job("0 2 * * *", {"/bin/true"}));
  ASSERT_TRUE(Save(jobs));
  EXPECT_EQ(
      JobLines(),
      "0 1 * * * root '/usr/kivo/bin/nodelink' '--report_info'\n0 2 * * * root '/bin/true'\n");
  jobs[1]["crontab"] = "0 99 * * *";
  EXPECT_FALSE(Save(jobs));
  EXPECT_NE(JobLines().find("0 2 * * *"), std::string::npos);
  ASSERT_TRUE(Save(Json::Value(Json::arrayValue)));
  EXPECT_EQ(JobLines(), "");
}

TEST_F(Crond, WordsReachTheProgramAsTheyAre) {
  for (const std::string word :
       {"plain", "",        "two words", "it's", "'",  "%",     "100%",
        "a\\%b", "a\\\\%b", "\\",        "\\%",  "%%", "'%'",   "$(id)",
        "`id`",  "\"q\"",   "!*?[a]",    "~",    "#",  "&|;<>", "\xc3\xbc"}) {
    ASSERT_TRUE(Save(Jobs("0 9 * * *", {"/usr/bin/printf", "%s|%s", word, "end"}))) << word;
    const std::string line = JobLines();
    const std::string prefix = "0 9 * * * root ";
    ASSERT_TRUE(line.starts_with(prefix) && line.ends_with("\n")) << line;
    std::string command = line.substr(prefix.size());
    command.pop_back();
    for (const Backslashes pair : {Backslashes::kBecomeOne, Backslashes::kStayTwo}) {
      const std::string script = AsCronReads(command, pair) + " >/tmp/words";
      ASSERT_EQ(
          KLIBCExecl("/bin/sh", 0xBB, "-c", script.c_str(), static_cast<const char*>(nullptr)), 0)
          << script;
      EXPECT_EQ(test_files::Read("/tmp/words"), word + "|end") << script;
    }
  }
}

TEST_F(Crond, NothingHostileGetsIn) {
  ASSERT_TRUE(Save(Jobs("0 9 * * *")));
  const std::string before = test_files::Read(kList);
  for (const char* user : {"", "root\n* * * * * root rm", "Root", "0root", "ro ot", "-x", "r:t",
                           "abcdefghijklmnopqrstuvwxyzabcdefg"}) {
    Json::Value jobs = Jobs("0 9 * * *");
    jobs[0]["user"] = user;
    EXPECT_FALSE(Save(jobs)) << user;
  }
  for (const char* name : {"", "a/b", ".job", "a b", "a\nb"}) {
    Json::Value jobs = Jobs("0 9 * * *");
    jobs[0]["name"] = name;
    EXPECT_FALSE(Save(jobs)) << name;
  }
  EXPECT_FALSE(Save(Jobs("0 9 * * *", {})));
  EXPECT_FALSE(Save(Jobs("0 9 * * *", {""})));
  EXPECT_FALSE(Save(Jobs("0 9 * * *", {"/bin/true", "a\nb"})));
  EXPECT_FALSE(Save(Jobs("0 9 * * *", {"/bin/true", std::string("a\0b", 3)})));
  EXPECT_FALSE(Save(Jobs("0 9 * * *", {"/bin/true", std::string(2000, 'x')})));
  EXPECT_FALSE(Save(Jobs("0 9 * * *\n* * * * *")));
  Json::Value no_array = Jobs("0 9 * * *");
  no_array[0]["cmd_list"] = "/bin/true";
  EXPECT_FALSE(Save(no_array));
  no_array[0]["cmd_list"] = Json::objectValue;
  EXPECT_FALSE(Save(no_array));
  EXPECT_EQ(test_files::Read(kList), before);
}

TEST_F(Crond, AListNameIsAPlainFileName) {
  for (const char* name : {"", "..", "../x", "a/b", ".x", "a.b", "a b", "a\nb"}) {
    EXPECT_FALSE(Save(Jobs("0 9 * * *"), name)) << name;
    EXPECT_FALSE(KIVO::KIVOCrond::ConfigManager(name, false).Remove()) << name;
  }
  EXPECT_TRUE(test_files::NamesIn("/etc/cron.d").empty());
}

TEST_F(Crond, WithoutCronsFolderNothingIsSaved) {
  test_files::Remove("/etc/cron.d");
  EXPECT_FALSE(Save(Jobs("0 9 * * *")));
}

TEST_F(Crond, TheOlderEntryGoesAndTheRestStays) {
  const std::string command = "/usr/kivo/bin/nodelink --report_info";
  const std::string head = "# m h dom mon dow user\tcommand\nSHELL=/bin/sh\n\n";
  test_files::Write(kCrontab,
                    head + "17 *\t* * *\troot\t" + command + "\n" + "# 17 * * * * root " + command +
                        "\n" + "  5 4 * * sun   root   " + command + "  \n" + "@daily root " +
                        command + "\n" + "1 2 3 4 5 root " + command + " --more\n" +
                        "1 2 3 4 5 root nice " + command + "\n" + "9 9 9 9 9 root " + command,
                    0640);
  EXPECT_GE(KIVOScheduleRemove(command.c_str()), 0);
  EXPECT_EQ(test_files::Read(kCrontab), head + "# 17 * * * * root " + command + "\n" +
                                            "1 2 3 4 5 root " + command + " --more\n" +
                                            "1 2 3 4 5 root nice " + command + "\n");
  EXPECT_EQ(test_files::ModeOf(kCrontab), 0640U);
  const ino_t inode = test_files::InodeOf(kCrontab);
  EXPECT_GE(KIVOScheduleRemove(command.c_str()), 0);
  EXPECT_EQ(test_files::InodeOf(kCrontab), inode);
  EXPECT_LT(KIVOScheduleRemove(""), 0);
}

TEST_F(Crond, TheLockIsRootsAlone) {
  test_files::Remove(kLock);
  ASSERT_TRUE(Save(Jobs("1 2 * * *")));
  EXPECT_EQ(test_files::ModeOf(kLock), 0600U);
  EXPECT_TRUE(Save(Jobs("1 3 * * *"))) << "and stays";
}

TEST_F(Crond, WhatIsNoLockOfRootsAloneIsNoLock) {
  ASSERT_TRUE(Save(Jobs("1 2 * * *")));
  const std::string before = test_files::Read(kList);
  const auto expect_failure = [&before](int error) {
    EXPECT_FALSE(Save(Jobs("1 3 * * *")));
    EXPECT_EQ(KLIBCErrGet(), error);
    EXPECT_FALSE(KIVO::KIVOCrond::ConfigManager("zomi", false).Remove());
    EXPECT_LT(KIVOScheduleRemove("true"), 0);
    EXPECT_EQ(test_files::Read(kList), before);
    test_files::Remove(kLock);
  };
  test_files::Remove(kLock);
  test_files::Write("/var/tmp/elsewhere", "", 0600);
  ASSERT_EQ(symlink("/var/tmp/elsewhere", kLock), 0);
  expect_failure(ELOOP);
  test_files::Write(kLock, "", 0644);
  expect_failure(EPERM);
  ASSERT_EQ(mkfifo(kLock, 0600), 0);
  expect_failure(EPERM);
  if (lab::HasOtherUsers()) {
    test_files::Write(kLock, "", 0600);
    ASSERT_EQ(chown(kLock, 1026, 100), 0);
    expect_failure(EPERM);
  }
}

}  // namespace
