// Whoever starts the programs, by whatever means: what they were started with has no say.
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <memory>

#include "lab/users.h"
#include "tests/e2e/device_fixture.h"

namespace {

using testing::Contains;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

class Hardening : public DeviceTest {
 protected:
  void SetUp() override { LinkDevice(); }

  static lab::ProcessResult RunWith(const std::vector<std::string>& environment,
                                    const std::vector<std::string>& options) {
    std::vector<std::string> words = {kProgram};
    words.insert(words.end(), options.begin(), options.end());
    return lab::RunProcess(words, {.environment = environment, .time_limit = kLimit});
  }

  // Asks the server; true when all of it went well.
  static bool QueriesWith(const std::vector<std::string>& environment) {
    return RunWith(environment, {"--query_account"}).out.find(kEmail) != std::string::npos;
  }

  void HoldAnswers() {
    devcloud::FaultRule rule;
    rule.path = kQueryPath;
    rule.hold = true;
    cloud_.faults().Add(rule);
  }

  // A query whose answer does not come, started by `starter`; gives the program time to ask.
  std::unique_ptr<lab::BackgroundProcess> StartQuery(std::vector<std::string> starter) {
    HoldAnswers();
    starter.insert(starter.end(), {kProgram, "--query_account"});
    auto query = std::make_unique<lab::BackgroundProcess>(starter);
    EXPECT_THAT(cloud_.held().WaitAndList(kLimit), testing::SizeIs(1));
    return query;
  }

  static constexpr std::chrono::seconds kLimit{20};
};

TEST_F(Hardening, NoProxyOfTheCallersIsAsked) {
  const std::string dead = "=http://127.0.0.1:1";
  EXPECT_TRUE(QueriesWith({"https_proxy" + dead, "HTTPS_PROXY" + dead, "ALL_PROXY" + dead}));
}

TEST_F(Hardening, NoTlsKeyIsWrittenWhereTheCallerWantsIt) {
  EXPECT_TRUE(QueriesWith({"SSLKEYLOGFILE=/var/tmp/keys"}));
  EXPECT_FALSE(test_files::Exists("/var/tmp/keys"));
}

// One without the provider of all ciphers.
TEST_F(Hardening, NoTlsConfigurationOfTheCallersIsRead) {
  test_files::Write("/var/tmp/openssl.cnf",
                    "openssl_conf = all\n[all]\nproviders = some\n[some]\nbase = on\n"
                    "[on]\nactivate = 1\n");
  EXPECT_TRUE(QueriesWith({"OPENSSL_CONF=/var/tmp/openssl.cnf"}));
}

TEST_F(Hardening, NoTimeZoneOfTheCallersIsWaitedFor) {
  ASSERT_EQ(mkfifo("/var/tmp/zone", 0600), 0);
  cloud_.Stop();  // so that there is something to log, with its time
  const auto result = RunWith({"TZ=:/var/tmp/zone"}, {"--query_account"});
  EXPECT_FALSE(result.timed_out);
  EXPECT_EQ(result.out, "Query account failed");
}

TEST_F(Hardening, OptionsMeanTheSameInEveryEnvironment) {
  EXPECT_THAT(RunWith({"POSIXLY_CORRECT=1"}, {"word", "--query_account"}).out, HasSubstr(kEmail));
}

// The record is no better than whoever could write it once.
TEST_F(Hardening, NoPasswordIsSentInTheClearWhateverTheRecordSays) {
  const devcloud::HttpsServer plain({.address = "127.0.0.1", .port = 80},
                                    [](const devcloud::Request&) { return devcloud::Response{}; });
  const std::string record = test_files::Read(kRecord);
  for (const char* host : {"http://127.0.0.1", "gopher://127.0.0.1:80", "dict://127.0.0.1:80",
                           "telnet://127.0.0.1:80", "file:///etc/shadow#"}) {
    SCOPED_TRACE(host);
    test_files::Write(kRecord, record + "account_host=\"" + host + "\"\n", 0600);
    const auto result = LogIn({"--password", kEmail}, kPassword + std::string("\n"));
    EXPECT_EQ(result.exit_status, 1);
    EXPECT_EQ(result.err, "nodelink-login: Failed to send the request (code 4)\n");
    EXPECT_THAT(Log(), Contains(HasSubstr(std::string(host) + "/device/api/password_login")));
  }
  EXPECT_EQ(plain.connections(), 0U);
}

TEST_F(Hardening, ClosedStreamsAreNeverAStateFile) {
  const auto query = StartQuery({"bash", "-c", "exec \"$0\" \"$@\" <&- >&- 2>&-"});
  for (const char* stream : {"0", "1", "2"}) {
    const std::string link = "/proc/" + std::to_string(query->pid()) + "/fd/" + stream;
    EXPECT_EQ(std::filesystem::read_symlink(link), "/dev/null");
  }
  cloud_.held().ReleaseAll();
  EXPECT_EQ(query->Wait().exit_status, 0);
  EXPECT_EQ(RecordValue("zomiID"), kEmail);
  EXPECT_THAT(lab::RunProcess({"grep", "-rl", "\"activated\":", "/tmp", "/etc", "/usr/kivo"}).out,
              "");
}

TEST_F(Hardening, WithoutNullThereIsNothingToRunOn) {
  const auto result = lab::RunProcess(
      {"bash", "-c", "mount -t tmpfs none /dev && exec \"$0\" \"$@\" >&-", kProgram, "-q"});
  EXPECT_EQ(result.exit_status, 1);
  EXPECT_THAT(Requests(), testing::IsEmpty());
}

TEST_F(Hardening, MemoryIsInNoCoreFile) {
  const auto query = StartQuery({"prlimit", "--core=unlimited"});
  EXPECT_THAT(test_files::Read("/proc/" + std::to_string(query->pid()) + "/limits"),
              testing::ContainsRegex("Max core file size +0 +0 "));
}

// Another process of the same user may look into it when it is as mighty, and it lets itself.
TEST_F(Hardening, MemoryIsNobodysToRead) {
  const std::string powers = "-sys_ptrace,-perfmon,-sys_admin";
  const std::vector<std::string> weaker = {"setpriv", "--inh-caps", powers, "--bounding-set",
                                           powers};
  const auto may_read = [&weaker](pid_t pid) {
    auto words = weaker;
    words.insert(words.end(), {"cat", "/proc/" + std::to_string(pid) + "/environ"});
    return lab::RunProcess(words).exit_status == 0;
  };
  auto sleeping = weaker;
  sleeping.insert(sleeping.end(), {"sh", "-c", "echo ready; cat"});
  lab::BackgroundProcess other(sleeping);
  ASSERT_EQ(other.WaitForLine(), "ready");
  EXPECT_TRUE(may_read(other.pid()));
  const auto query = StartQuery(weaker);
  EXPECT_FALSE(may_read(query->pid()));
}

// A pipe without a reader.
const std::vector<std::string> kNoReader = {
    "bash", "-c",
    "mkfifo /var/tmp/p; exec 3<>/var/tmp/p 4>/var/tmp/p 3<&-; exec \"$0\" \"$@\" >&4"};

TEST_F(Hardening, AReaderThatHasGoneEndsNothing) {
  auto words = kNoReader;
  words.insert(words.end(), {lab::kLoginProgram, "--browser"});
  const auto result = lab::RunProcess(words, {.stdin_text = "code\n"});
  EXPECT_EQ(result.signal, 0);
  EXPECT_THAT(result.err, StartsWith("nodelink-login: "));
  EXPECT_THAT(Requests(kTokenPath), testing::SizeIs(1)) << "it went on after the address";
}

TEST_F(Hardening, AFileThatMayNotGrowIsAFailedWrite) {
  const auto result = lab::RunProcess({"prlimit", "--fsize=0", kProgram, "--update"});
  EXPECT_EQ(result.signal, 0);
  EXPECT_THAT(Log(), Contains("account_service Failed to add crontab for zomi"));
  EXPECT_FALSE(test_files::Exists(kReportJob));
}

// What the platform starts has the signals that programs expect, and none of the caller's
// environment.
TEST_F(Hardening, PlugInsStartAfresh) {
  test_files::Write(
      "/usr/kivo/lib/plugin/zomi/login/probe",
      "#!/bin/sh\n{ grep SigIgn /proc/$$/status; env | grep -v ^PWD=; } >/var/tmp/probe\n", 0755);
  const auto result = lab::RunProcess(
      {lab::kLoginProgram, "--password", kEmail},
      {.stdin_text = std::string(kPassword) + "\n", .environment = {{"CALLERS=own", "PATH=/tmp"}}});
  ASSERT_EQ(result.exit_status, 0) << result.err;
  const std::string probe = test_files::Read("/var/tmp/probe");
  const std::string ignored = "SigIgn:\t";
  ASSERT_THAT(probe, StartsWith(ignored));
  const auto signals = std::stoull(probe.substr(ignored.size()), nullptr, 16);
  EXPECT_EQ(signals & (1U << (SIGPIPE - 1) | 1U << (SIGXFSZ - 1)), 0U);
  EXPECT_THAT(probe, HasSubstr("PATH=/usr/local/sbin:"));
  EXPECT_THAT(probe, Not(HasSubstr("CALLERS")));
}

// Everybody may open cron's folders, and hold the locks on them.
TEST_F(Hardening, NoOrdinaryUserKeepsTheReportsJobAway) {
  if (!lab::HasOtherUsers()) GTEST_SKIP() << "the lab of an ordinary user has no other users";
  lab::BackgroundProcess other(
      {"flock", "/etc", "flock", "/etc/cron.d", "sh", "-c", "echo held; cat"},
      {.uid = 1026, .gid = 100});
  ASSERT_EQ(other.WaitForLine(), "held");
  const auto run = [](const char* option) {
    return lab::RunProcess({kProgram, option}, {.time_limit = kLimit});
  };
  EXPECT_FALSE(run("--update").timed_out);
  EXPECT_TRUE(test_files::Exists(kReportJob));
  EXPECT_FALSE(run("--logout").timed_out);
  EXPECT_FALSE(test_files::Exists(kReportJob));
  EXPECT_THAT(Log(), testing::Each(Not(HasSubstr("Failed"))));
}

}  // namespace
