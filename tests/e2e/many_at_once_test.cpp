// Many processes at once, and locks in other people's hands.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <memory>

#include "base/unique_fd.h"
#include "tests/e2e/device_fixture.h"

namespace {

using testing::AnyOf;
using testing::Contains;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using testing::StartsWith;

constexpr char kQueryLock[] = "/tmp/account_query_info.lock";
constexpr char kReadLock[] = "/tmp/account_login_get_token.lock";
constexpr char kNoRenewal[] =
    "zomi_report_info Failed to renew token: Failed to lock file: "
    "/tmp/account_login_get_token.lock";

#ifdef __SANITIZE_ADDRESS__
constexpr int kMany = 16;  // each takes ten times as long
#else
constexpr int kMany = 64;
#endif

// Programs that all begin at one moment.
class Crowd {
 public:
  void Add(const std::string& option) {
    members_.push_back(std::make_unique<lab::BackgroundProcess>(
        std::vector<std::string>{"sh", "-c", "read -r _; exec \"$0\" \"$@\"", kProgram, option},
        lab::ProcessOptions{.time_limit = std::chrono::minutes(4)}));
  }

  std::vector<lab::ProcessResult> Run() {
    for (const auto& member : members_) member->CloseStdin();
    std::vector<lab::ProcessResult> results;
    results.reserve(members_.size());
    for (const auto& member : members_) results.push_back(member->Wait());
    return results;
  }

 private:
  std::vector<std::unique_ptr<lab::BackgroundProcess>> members_;
};

class ManyAtOnce : public DeviceTest {
 protected:
  // Linked, with a fresh record and tokens.
  void SetUpDevice() {
    link_ = LinkDevice();
    ASSERT_THAT(Run({"--query_account"}).out, HasSubstr(kEmail));
    ASSERT_EQ(Run({"--report_info"}).exit_status, 0);
    ASSERT_TRUE(test_files::Exists(kTokens));
  }

  devcloud::Link link_;
};

TEST_F(ManyAtOnce, QueriesOnAStaleCacheMakeOneRequest) {
  SetUpDevice();
  const std::string answer = Run({"--query_account"}).out;
  SetLastQueryAge(300);
  const std::size_t before = Requests(kQueryPath).size();
  Crowd crowd;
  for (int index = 0; index < kMany; ++index) crowd.Add("--query_account");
  for (const auto& result : crowd.Run()) {
    EXPECT_EQ(result.out, answer);
    EXPECT_EQ(result.exit_status, 0);
  }
  EXPECT_THAT(Requests(kQueryPath), SizeIs(before + 1));
  EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(ManyAtOnce, ReportsOnAnExpiredTokenMakeOneRenewal) {
  SetUpDevice();
  AgeTokens(7200);
  const std::string old_token = Tokens()["refresh_token"].asString();
  const std::size_t before = Requests(kTokenPath).size();
  Crowd crowd;
  for (int index = 0; index < kMany; ++index) crowd.Add("--report_info");
  for (const auto& result : crowd.Run()) {
    EXPECT_EQ(result.exit_status, 0);
  }
  EXPECT_THAT(Requests(kTokenPath), SizeIs(before + 1));
  EXPECT_NE(Tokens()["refresh_token"].asString(), old_token);
  EXPECT_THAT(Log(), IsEmpty());
  // The stored refresh token is the one that the server knows.
  AgeTokens(7200);
  EXPECT_EQ(Run({"--report_info"}).exit_status, 0);
  EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(ManyAtOnce, ReportsAndQueriesKeepEachOthersKeys) {
  SetUpDevice();
  account_.full_name = "Anna Other";
  account_.report_cron_timestring = "30 3 * * 6";
  Update(account_);
  SetLastQueryAge(300);
  Crowd crowd;
  for (int index = 0; index < kMany / 4; ++index) {
    crowd.Add("--report_info");
    crowd.Add("--query_account");
  }
  for (const auto& result : crowd.Run()) {
    EXPECT_EQ(result.exit_status, 0);
    EXPECT_THAT(result.out, AnyOf("", HasSubstr("Anna Other")));
  }
  EXPECT_EQ(RecordValue("full_name"), "Anna Other");
  EXPECT_EQ(RecordValue("report_cron_timestring"), "30 3 * * 6");
  EXPECT_EQ(RecordValue("hs_auth_key"), link_.auth_key);
  EXPECT_EQ(RecordValue("zomiIDSerial"), link_.user_id);
  EXPECT_THAT(Log(), IsEmpty());
}

// Who comes first is chance. All end, nobody waits in vain, and the device can be linked again.
TEST_F(ManyAtOnce, ALogoutAmongRenewalsEndsTheLink) {
  SetUpDevice();
  AgeTokens(7200);
  Crowd crowd;
  for (int index = 0; index < kMany / 8; ++index) {
    crowd.Add("--report_info");
    crowd.Add("--query_account");
  }
  crowd.Add("--logout");
  for (const auto& result : crowd.Run()) {
    EXPECT_THAT(result.exit_status, AnyOf(0, 255));
    EXPECT_FALSE(result.timed_out);
  }
  EXPECT_THAT(Log(), testing::Each(testing::Not(HasSubstr("lock"))));
  EXPECT_FALSE(cloud_.store().FindLink(kSerial).has_value());
  EXPECT_EQ(Run({"--logout"}).out, "");
  EXPECT_FALSE(test_files::Exists(kRecord));
  EXPECT_FALSE(test_files::Exists(kTokens));
  EXPECT_EQ(LogIn({"--password", kEmail}, std::string(kPassword) + "\n").exit_status, 0);
  EXPECT_EQ(Run({"--report_info"}).exit_status, 0);
  EXPECT_TRUE(test_files::Exists(kTokens));
}

class LockFiles : public ManyAtOnce {
 protected:
  void SetUp() override { SetUpDevice(); }

  // A query that would ask the server, and fails before.
  void ExpectNoQuery(const std::vector<std::string>& prefix = {}) {
    SetLastQueryAge(300);
    const std::size_t before = Requests().size();
    std::vector<std::string> words = prefix;
    words.insert(words.end(), {kProgram, "--query_account"});
    EXPECT_EQ(lab::RunProcess(words).out, "Query account failed");
    EXPECT_THAT(Requests(), SizeIs(before));
    EXPECT_THAT(
        Log(), Contains(std::string("zomi_account_query_info Failed to lock file: ") + kQueryLock));
  }

  static base::UniqueFd Hold(const char* path) {
    base::UniqueFd fd(open(path, O_RDWR | O_CREAT | O_CLOEXEC, 0666));
    EXPECT_EQ(flock(fd.get(), LOCK_EX), 0);
    return fd;
  }
};

TEST_F(LockFiles, AnotherUsersFileServes) {
  for (const mode_t mode : {0666U, 0644U, 0600U}) {
    unlink(kQueryLock);
    test_files::Write(kQueryLock, "", mode);
    if (chown(kQueryLock, 1026, 100) != 0) {
      GTEST_SKIP() << "the lab of an ordinary user has no other users";
    }
    SetLastQueryAge(300);
    EXPECT_THAT(Run({"--query_account"}).out, HasSubstr(kEmail));
  }
}

TEST_F(LockFiles, ALinkIsNotFollowed) {
  test_files::Write("/etc/victim", "as it was", 0644);
  for (const char* target : {"/etc/victim", "/etc/new"}) {
    for (const char* path : {kQueryLock, kReadLock}) {
      unlink(path);
      std::filesystem::create_symlink(target, path);
    }
    ExpectNoQuery();
    EXPECT_EQ(Run({"--report_info"}).exit_status, 0);
    EXPECT_THAT(Log(), Contains(StartsWith(kNoRenewal)));
  }
  EXPECT_EQ(test_files::Read("/etc/victim"), "as it was");
  EXPECT_FALSE(test_files::Exists("/etc/new"));
}

// The locks further in: the renewal fails, and the tokens stay.
TEST_F(LockFiles, LinksInARenewalsWayLeaveTheTokens) {
  test_files::Write("/etc/victim", "as it was", 0644);
  for (const char* path :
       {"/tmp/account_login_renew_token.lock", "/tmp/account_login_save_token.lock"}) {
    SCOPED_TRACE(path);
    AgeTokens(7200);
    unlink(path);
    std::filesystem::create_symlink("/etc/victim", path);
    const std::string before = test_files::Read(kTokens);
    EXPECT_EQ(Run({"--report_info"}).exit_status, 0);
    EXPECT_EQ(test_files::Read(kTokens), before);
    EXPECT_THAT(Log(), Contains(std::string("file_lock Failed to open file: ") + path));
    unlink(path);
  }
  EXPECT_EQ(test_files::Read("/etc/victim"), "as it was");
  // The renewal that could not be stored cost the refresh token; the auth key brings a new one.
  EXPECT_EQ(Run({"--report_info"}).exit_status, 0);
  EXPECT_THAT(Log(), Contains("account_pkce_service Rescue hos renew pkce token by authkey"));
}

TEST_F(LockFiles, AFolderIsNoLock) {
  unlink(kQueryLock);
  ASSERT_EQ(mkdir(kQueryLock, 0777), 0);
  ExpectNoQuery();
}

// Thirty seconds, on a clock that runs sixty times as fast.
TEST_F(LockFiles, ALockThatIsNeverFreeIsGivenUp) {
#ifdef __SANITIZE_ADDRESS__
  GTEST_SKIP() << "the sanitizer and the fast clock both want to be loaded first";
#endif
  const base::UniqueFd query = Hold(kQueryLock);
  ExpectNoQuery(FastClock(60));
  const base::UniqueFd read = Hold(kReadLock);
  auto report = FastClock(60);
  report.insert(report.end(), {kProgram, "--report_info"});
  EXPECT_EQ(lab::RunProcess(report).exit_status, 0);
  EXPECT_THAT(Log(), Contains(StartsWith(kNoRenewal)));
}

// Another file system in its place, gone with the lab.
void MountOnTmp(const char* options) {
  ASSERT_EQ(mount("none", "/tmp", "tmpfs", MS_NOSUID | MS_NODEV, options), 0);
}

TEST_F(LockFiles, AFullFolderOfTheirsIsAFailure) {
  MountOnTmp("mode=1777,nr_inodes=1");  // taken by the folder itself
  ExpectNoQuery();
  EXPECT_EQ(Run({"--report_info"}).exit_status, 0);
  EXPECT_THAT(
      Run({"--logout"}).out,
      StartsWith("Failed to logout: Failed to lock file: /tmp/account_login_get_token.lock"));
  EXPECT_TRUE(test_files::Exists(kRecord));
}

TEST_F(LockFiles, NeedNoSpaceForData) {
  MountOnTmp("mode=1777,size=4096");
  test_files::Write("/tmp/filler", std::string(4096, 'x'));
  SetLastQueryAge(300);
  EXPECT_THAT(Run({"--query_account"}).out, HasSubstr(kEmail));
}

}  // namespace
