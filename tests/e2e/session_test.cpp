// A device's life with its account: login, report, token renewal and rescue, notices, logout.
#include <fcntl.h>
#include <pty.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <memory>

#include "base/unique_fd.h"
#include "lab/browser.h"
#include "tests/e2e/device_fixture.h"

namespace {

using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

// What a terminal shows up to and with `end`, or all of it when its program ends before.
std::string ReadUntil(int terminal, const std::string& end) {
  std::string shown;
  char byte = '\0';
  while (!shown.ends_with(end) && read(terminal, &byte, 1) == 1) shown += byte;
  return shown;
}

class Session : public DeviceTest {
 protected:
  void LogInByPassword() {
    const auto result = LogIn({"--password", kEmail}, std::string(kPassword) + "\n");
    ASSERT_EQ(result.out, "Logged in as anna@example.org\n") << result.err;
    ASSERT_EQ(result.exit_status, 0);
  }

  // Plays the browser; `change` may tamper with the address that it is sent back to.
  lab::ProcessResult LogInByBrowser(
      const std::function<std::string(std::string)>& change = nullptr) {
    lab::BackgroundProcess login({"/usr/kivo/bin/nodelink-login", "--browser"});
    const std::string back = lab::SignIn(login.WaitForLine("https://"), kEmail, kPassword);
    login.Write((change ? change(back) : back) + "\n");
    login.CloseStdin();
    return login.Wait();
  }

  void RevokeTokens() {
    for (const auto& family : cloud_.tokens().Families()) cloud_.tokens().RevokeFamily(family.id);
  }

  std::size_t TokenRequests() { return Requests(kTokenPath).size(); }
};

TEST_F(Session, APasswordLoginLinksTheDevice) {
  LogInByPassword();
  const auto link = cloud_.store().FindLink(kSerial);
  ASSERT_TRUE(link.has_value());
  EXPECT_EQ(RecordValue("zomiIDSerial"), link->user_id);
  EXPECT_EQ(RecordValue("hs_auth_key"), link->auth_key);
  EXPECT_EQ(RecordValue("zomiID"), kEmail);
  EXPECT_THAT(test_files::Read(kReportJob),
              testing::ContainsRegex("\n[0-9]+ (9|1[0-6]) \\* \\* [1-5] root "
                                     "'/usr/kivo/bin/nodelink' '--report_info'\n"));
  EXPECT_THAT(test_files::Read(kEvents), HasSubstr("0x13A00001"));
}

TEST_F(Session, AWrongPasswordChangesNothing) {
  const auto result = LogIn({"--password", kEmail}, "wrong\n");
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, "nodelink-login: Failed to auth (code 14)\n");
  EXPECT_EQ(result.exit_status, 1);
  EXPECT_FALSE(test_files::Exists(kRecord));
  EXPECT_FALSE(test_files::Exists(kReportJob));
}

TEST_F(Session, ThePasswordIsNeverLogged) {
  LogInByPassword();
  (void)LogIn({"--password", kEmail}, "another secret\n");
  for (const lab::LogLine& line : sink_.Lines()) {
    EXPECT_THAT(line.raw, Not(HasSubstr(kPassword)));
    EXPECT_THAT(line.raw, Not(HasSubstr("another secret")));
  }
}

TEST_F(Session, ThePasswordIsAskedForWithoutEcho) {
  int terminal = -1;
  const pid_t login = forkpty(&terminal, nullptr, nullptr, nullptr);
  ASSERT_GE(login, 0);
  if (login == 0) {
    execl("/usr/kivo/bin/nodelink-login", "nodelink-login", "--password", kEmail, nullptr);
    _exit(127);
  }
  std::string shown = ReadUntil(terminal, "Password: ");
  const std::string answer = std::string(kPassword) + "\n";
  ASSERT_EQ(write(terminal, answer.data(), answer.size()), static_cast<ssize_t>(answer.size()));
  shown += ReadUntil(terminal, "\x04 never comes");
  int status = -1;
  ASSERT_EQ(waitpid(login, &status, 0), login);
  close(terminal);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(shown, "Password: \r\nLogged in as anna@example.org\r\n");
}

TEST_F(Session, AnApiKeyThatTheServerDoesNotKnowIsRegisteredAnew) {
  LogInByPassword();
  const std::string old_key = test_files::Read(kApiKeyFile);
  devcloud::Device device = cloud_.store().FindDevice(kSerial).value();
  device.api_key.reset();
  cloud_.store().PutDevice(device);
  LogInByPassword();
  EXPECT_NE(test_files::Read(kApiKeyFile), old_key);
  EXPECT_THAT(Log(), Contains("zomi_account_login ApiKey not found. Register new one."));
}

TEST_F(Session, AnExpiredApiKeyIsDroppedForTheNextLogin) {
  LogInByPassword();
  devcloud::Device device = cloud_.store().FindDevice(kSerial).value();
  device.api_key_expired = true;
  cloud_.store().PutDevice(device);
  EXPECT_EQ(LogIn({"--password", kEmail}, std::string(kPassword) + "\n").err,
            "nodelink-login: System error (code 27)\n");
  EXPECT_FALSE(test_files::Exists(kApiKeyFile));
  LogInByPassword();
}

TEST_F(Session, ARefusedRegistrationOfAnApiKeyFailsTheLogin) {
  devcloud::FaultRule rule;
  rule.path = "/cloudservice/api/v1/apikey/register";
  rule.status = 200;
  for (const char* body : {"", "{}", "{\"api_key\": {}}", "{\"api_key\": \"two\\nlines\"}"}) {
    SCOPED_TRACE(body);
    rule.body = body;
    const auto id = cloud_.faults().Add(rule);
    EXPECT_EQ(LogIn({"--password", kEmail}, std::string(kPassword) + "\n").err,
              "nodelink-login: System error (code 24)\n");
    EXPECT_THAT(Log(), Contains(EndsWith("/register: the answer holds no key")));
    EXPECT_FALSE(test_files::Exists(kApiKeyFile));
    cloud_.faults().Remove(id);
  }
}

TEST_F(Session, WithoutANetworkTheRegistrationSaysSo) {
  cloud_.Stop();
  EXPECT_EQ(LogIn({"--password", kEmail}, std::string(kPassword) + "\n").err,
            "nodelink-login: System error (code 15)\n");
  EXPECT_THAT(Log(), Contains(AllOf(HasSubstr("Failed to register an API key at https://"),
                                    HasSubstr("connect to server"))));
}

TEST_F(Session, WrongUsageIsSaidOnStandardError) {
  for (const auto& options : std::vector<std::vector<std::string>>{
           {}, {"--password"}, {"--browser", "x"}, {"--nothing"}}) {
    const auto result = LogIn(options, "");
    EXPECT_EQ(result.exit_status, 2);
    EXPECT_EQ(result.out, "");
    EXPECT_THAT(result.err, HasSubstr("Usage: nodelink-login"));
  }
}

TEST_F(Session, ABrowserLoginStoresTokensAndAccount) {
  const auto result = LogInByBrowser();
  EXPECT_THAT(result.out, HasSubstr("\nLogged in as anna@example.org\n")) << result.err;
  EXPECT_EQ(result.exit_status, 0);
  EXPECT_EQ(RecordValue("account_host"), "https://account.veltrix.example");
  EXPECT_EQ(RecordValue("identity_host"), "https://identity.veltrix.example");
  EXPECT_EQ(RecordValue("zomiID"), kEmail);
  struct stat status {};
  ASSERT_EQ(stat(kTokens, &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0600U);
  EXPECT_THAT(Log(), ElementsAre("account_pkce_service Logged in Veltrix Account as "
                                 "[anna@example.org]"));
}

TEST_F(Session, TheSignInsStateIsChecked) {
  const auto result = LogInByBrowser(
      [](std::string back) { return back.replace(back.find("state=") + 6, 4, "0000"); });
  EXPECT_EQ(result.err, "nodelink-login: Wrong parameters (code 1)\n");
  EXPECT_EQ(result.exit_status, 1);
  EXPECT_FALSE(test_files::Exists(kTokens));
}

TEST_F(Session, TheBareCodeServesToo) {
  const auto result = LogInByBrowser([](const std::string& back) {
    const std::size_t begin = back.find("code=") + 5;
    return back.substr(begin, back.find('&', begin) - begin);
  });
  EXPECT_EQ(result.exit_status, 0) << result.err;
}

TEST_F(Session, ALoginThatFailsAfterTheTokensLeavesTheRecordAsItWas) {
  devcloud::FaultRule rule;
  rule.path = "/device/api/user/query";
  rule.status = 500;
  cloud_.faults().Add(rule);
  EXPECT_EQ(LogInByBrowser().exit_status, 1);
  EXPECT_FALSE(test_files::Exists(kRecord));
  EXPECT_TRUE(test_files::Exists(kTokens));
  const std::string old_record = "# kept\nzomiID=\"other@example.org\"\n";
  test_files::Write(kRecord, old_record, 0600);
  EXPECT_EQ(LogInByBrowser().exit_status, 1);
  EXPECT_EQ(test_files::Read(kRecord), old_record);
}

TEST_F(Session, ALoginToAnotherAccountShowsThatAccount) {
  LogInByPassword();
  devcloud::Account other;
  other.email = "ben@example.org";
  ASSERT_TRUE(cloud_.store().AddAccount(other, "other password"));
  EXPECT_EQ(LogIn({"--password", other.email}, "other password\n").exit_status, 0);
  EXPECT_EQ(RecordValue("zomiID"), other.email);
}

// Thirty seconds, on a clock that runs sixty times as fast.
TEST_F(Session, ALoginWaitsForAnotherOneAndSaysSo) {
#ifdef __SANITIZE_ADDRESS__
  GTEST_SKIP() << "the sanitizer and the fast clock both want to be loaded first";
#endif
  LogInByPassword();
  const std::string path = std::string(lab::kPrivateFolder) + "/.login.lock";
  const base::UniqueFd other(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  ASSERT_EQ(flock(other.get(), LOCK_EX | LOCK_NB), 0) << "the login before has let go";
  const std::size_t before = Requests().size();
  auto login = FastClock(60);
  login.insert(login.end(), {lab::kLoginProgram, "--password", kEmail});
  const auto result = lab::RunProcess(login, {.stdin_text = std::string(kPassword) + "\n"});
  EXPECT_EQ(result.err,
            "nodelink-login: waiting for another login\n"
            "nodelink-login: System error (code 24)\n");
  EXPECT_EQ(result.exit_status, 1);
  EXPECT_THAT(Requests(), SizeIs(before));
  EXPECT_THAT(Log(), Contains("login_lock Waiting for another login"));
  EXPECT_THAT(Log(), Contains("login_lock Failed to lock file: " + path));
}

TEST_F(Session, NoOrdinaryUserCanHoldTheLocksOfRoots) {
  LogInByPassword();
  for (const char* name : {".link.lock", ".login.lock"}) {
    const std::string path = std::string(lab::kPrivateFolder) + "/" + name;
    EXPECT_EQ(test_files::ModeOf(path), 0600U);
    const std::vector<std::string> command = {"flock", "--nonblock", path, "true"};
    EXPECT_EQ(lab::RunProcess(command).exit_status, 0);
    if (lab::RunProcess({"setpriv", "--reuid", "1026", "--clear-groups", "true"}).exit_status !=
        0) {
      GTEST_SKIP() << "the lab of an ordinary user has no other users";
    }
    EXPECT_NE(lab::RunProcess(command, {.uid = 1026, .gid = 100}).exit_status, 0);
  }
}

TEST_F(Session, TheReportStoresTheScheduleAndRenewsTheToken) {
  ASSERT_EQ(LogInByBrowser().exit_status, 0);
  account_.report_cron_timestring = "30 3 * * 6";
  Update(account_);
  AgeTokens(7200);
  const std::string old_token = Tokens()["access_token"].asString();
  EXPECT_EQ(Run({"--report_info"}).exit_status, 0);
  EXPECT_EQ(RecordValue("report_cron_timestring"), "30 3 * * 6");
  EXPECT_THAT(test_files::Read(kReportJob), HasSubstr("\n30 3 * * 6 root "));
  EXPECT_NE(Tokens()["access_token"].asString(), old_token);
  const auto reports = Requests(kReportPath);
  ASSERT_THAT(reports, SizeIs(1));
  EXPECT_THAT(reports[0].request.body,
              testing::MatchesRegex("hs_sn=NL00000001A&hs_token=[0-9a-f]+&id=[^&]+&auth_key=[^&]+"
                                    "&timezone=Europe%2FZurich&serial_no=NL00000001A&hs_info="));
}

TEST_F(Session, AnUnlinkedDeviceHasNothingToReport) {
  EXPECT_EQ(Run({"--report_info"}).exit_status, 0);
  EXPECT_THAT(Requests(), IsEmpty());
  EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(Session, NothingIsReportedInTheDaemonsStateTwo) {
  LogInByPassword();
  test_files::Write("/run/kivo/scemd.status", "1=\"2\"\n");
  EXPECT_EQ(Run({"--report_info"}).exit_status, 0);
  EXPECT_THAT(Requests(kReportPath), IsEmpty());
}

TEST_F(Session, AScheduleFromTheServerIsOnlyEverASchedule) {
  LogInByPassword();
  const std::string job = test_files::Read(kReportJob);
  for (const char* schedule :
       {"* * * * * root /bin/sh -c 'echo owned' #", "@reboot", "0~99 * * * *", "* * * *",
        "* * * * %", "$(id) * * * *", "*/0 * * * *", "60 * * * *", "5~3 * * * *"}) {
    SCOPED_TRACE(schedule);
    account_.report_cron_timestring = schedule;
    Update(account_);
    EXPECT_EQ(Run({"--report_info"}).exit_status, 0);
    EXPECT_EQ(test_files::Read(kReportJob), job);
  }
  EXPECT_THAT(Log(), Contains("account_service Failed to add crontab for zomi"));
  account_.report_cron_timestring = "* * * * *\n* * * * * root reboot";
  Update(account_);
  EXPECT_EQ(Run({"--report_info"}).exit_status, 0);
  EXPECT_EQ(test_files::Read(kReportJob), job);
  EXPECT_THAT(Log(), Contains(HasSubstr("zomi_report_info Failed to set user: ")));
}

TEST_F(Session, ARefusedRefreshTokenIsRescuedOnce) {
  ASSERT_EQ(LogInByBrowser().exit_status, 0);
  RevokeTokens();
  AgeTokens(7200);
  sink_.Clear();
  EXPECT_EQ(Run({"--report_info"}).exit_status, 0);
  EXPECT_THAT(Log(), ElementsAre(HasSubstr("pkce_client Failed to renew token, refresh_token is "
                                           "expired or revoked, code=400"),
                                 "account_pkce_service Rescue hos renew pkce token by authkey"));
  EXPECT_THAT(Requests("/migration/api/v1/device/core/authorization_code/grant"), SizeIs(1));
}

TEST_F(Session, ManyAtOnceRenewOnce) {
  ASSERT_EQ(LogInByBrowser().exit_status, 0);
  AgeTokens(7200);
  const std::size_t before = TokenRequests();
  std::vector<std::unique_ptr<lab::BackgroundProcess>> reports;
  reports.reserve(8);
  for (int index = 0; index < 8; ++index) {
    reports.push_back(std::make_unique<lab::BackgroundProcess>(
        std::vector<std::string>{"/usr/kivo/bin/nodelink", "--report_info"}));
  }
  for (const auto& report : reports) {
    EXPECT_EQ(report->Wait().exit_status, 0);
  }
  EXPECT_EQ(TokenRequests(), before + 1);
}

TEST_F(Session, ADeviceThatTheServerUnlinkedIsLoggedOut) {
  ASSERT_EQ(LogInByBrowser().exit_status, 0);
  cloud_.store().Unlink(kSerial);
  EXPECT_EQ(Run({"--report_info"}).exit_status, 255);
  EXPECT_FALSE(test_files::Exists(kRecord));
  EXPECT_FALSE(test_files::Exists(kTokens));
  EXPECT_FALSE(test_files::Exists(kReportJob));
  EXPECT_THAT(test_files::Read(kNotices), HasSubstr("\"tag\":\"zomi_force_logout\""));
  EXPECT_THAT(Log(), Contains("nodelink Failed to report Zomi info, code=14"));
}

TEST_F(Session, TheMigrationNoticeNeedsALinkedAccount) {
  EXPECT_EQ(Run({"--notify_logout"}).exit_status, 0);
  EXPECT_FALSE(test_files::Exists(kNotices));
  LogInByPassword();
  EXPECT_EQ(Run({"--notify_logout"}).exit_status, 0);
  EXPECT_THAT(test_files::Read(kNotices),
              HasSubstr(R"("args":["-e","false","-c","KIVO.WEB.AdminCenter.Application",)"
                        R"("@administrators","zomi:zomi_center","zomi:notify_hs_migrated",)"));
}

TEST_F(Session, LogoutClearsTheDeviceAndTellsTheServer) {
  ASSERT_EQ(LogInByBrowser().exit_status, 0);
  const auto result = Run({"--logout"});
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.exit_status, 0);
  EXPECT_FALSE(test_files::Exists(kRecord));
  EXPECT_FALSE(test_files::Exists(kTokens));
  EXPECT_FALSE(cloud_.store().FindLink(kSerial).has_value());
  EXPECT_THAT(test_files::Read(kEvents), HasSubstr("0x13A00002"));
}

TEST_F(Session, ALogoutThatTheServerDoesNotTakeKeepsTheAccount) {
  LogInByPassword();
  devcloud::FaultRule rule;
  rule.path = "/device/api/logout";
  rule.status = 500;
  cloud_.faults().Add(rule);
  const auto result = Run({"--logout"});
  EXPECT_THAT(result.out, testing::StartsWith("Failed to logout: Failed to logout, code=500"));
  EXPECT_THAT(result.out, HasSubstr("nodelink::AccountPkceServiceImpl::Logout(nodelink::"))
      << "the backtrace names no function of the program's";
  EXPECT_EQ(result.exit_status, 0);
  EXPECT_TRUE(test_files::Exists(kRecord));
}

TEST_F(Session, UpdateRewritesTheJobAndLeavesItWhenReportsAreOff) {
  EXPECT_EQ(Run({"--update"}).exit_status, 0);
  const std::string job = test_files::Read(kReportJob);
  struct stat before {};
  ASSERT_EQ(stat(kReportJob, &before), 0);
  Run({"--update"});
  struct stat after {};
  ASSERT_EQ(stat(kReportJob, &after), 0);
  EXPECT_EQ(after.st_ino, before.st_ino) << "an unchanged job was rewritten";
  test_files::Write(kReportJob, job + "# by hand\n");
  test_files::Write("/etc/kivoinfo.conf", "zomi_disable_report=\"yes\"\n");
  Run({"--update"});
  EXPECT_EQ(test_files::Read(kReportJob), job + "# by hand\n");
}

TEST_F(Session, UpdateDropsTheOlderSchedulesEntry) {
  test_files::Write("/etc/crontab", "# old\n1 2 * * * root /usr/kivo/bin/nodelink --report_info\n");
  Run({"--update"});
  EXPECT_EQ(test_files::Read("/etc/crontab"), "# old\n");
}

}  // namespace
