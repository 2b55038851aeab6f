#include "account/privilege_guard.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "account/account_data.h"
#include "account/record_change.h"
#include "account/server_info.h"
#include "account/user.h"
#include "account/zomi_config_get.h"
#include "account/zomi_config_remove.h"
#include "lab/users.h"
#include "tests/account/record_fixture.h"
#include "tests/support/child.h"

namespace nodelink {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr uid_t kUser = 1026;
constexpr gid_t kGroup = 100;
constexpr LogSite kSite{"guarded", 5};
constexpr char kRecord[] = "zomiID=\"ann\"\nzomiPW=\"pw\"\n";

// Which ids a process has: real, effective, saved user, then the groups.
constexpr Ids kRoot{};
constexpr Ids kUserDropped{0, kUser, 0, 0, 0, 0};
constexpr Ids kGroupDropped{0, 0, 0, 0, kGroup, 0};
constexpr Ids kBothDropped{0, kUser, 0, 0, kGroup, 0};
constexpr Ids kOnlySavedIsRoot{kUser, kUser, 0, kGroup, kGroup, 0};
constexpr Ids kNoWayBack{kUser, kUser, kUser, kGroup, kGroup, kGroup};
constexpr Ids kOnlyGroupComesBack{kUser, kUser, kUser, 0, kGroup, 0};
constexpr Ids kRootsGroupNoWayBack{kUser, kUser, kUser, 0, 0, 0};

std::string ToText(const Ids& ids) {
  std::string text = "uid";
  for (const uid_t id : {ids.real_user, ids.effective_user, ids.saved_user}) {
    text += " " + std::to_string(id);
  }
  text += " gid";
  for (const gid_t id : {ids.real_group, ids.effective_group, ids.saved_group}) {
    text += " " + std::to_string(id);
  }
  return text;
}

// "setresuid(-1, 0, -1)"
std::string CallText(const char* name, unsigned int real, unsigned int effective,
                     unsigned int saved) {
  std::string text;
  for (const unsigned int id : {real, effective, saved}) {
    text += (text.empty() ? "" : ", ") + std::to_string(static_cast<int>(id));
  }
  return std::string(name) + "(" + text + ")";
}

// Notes the credential calls of the process, which still happen, except for one that is made to
// fail.
class CredentialCalls {
 public:
  // `failing` counts from 1; 0 is none.
  explicit CredentialCalls(int failing = 0) : failing_(failing) {
    interpose::hooks().setresuid = [this](uid_t real, uid_t effective, uid_t saved) {
      return Note(CallText("setresuid", real, effective, saved))
                 ? interpose::RealSetresuid(real, effective, saved)
                 : -1;
    };
    interpose::hooks().setresgid = [this](gid_t real, gid_t effective, gid_t saved) {
      return Note(CallText("setresgid", real, effective, saved))
                 ? interpose::RealSetresgid(real, effective, saved)
                 : -1;
    };
  }

  // What has happened since the last call of this, one line each.
  std::string Take() { return std::exchange(text_, ""); }

 private:
  bool Note(const std::string& call) {
    text_ += call + "\n";
    errno = EAGAIN;
    return ++count_ != failing_;
  }

  int failing_;
  int count_ = 0;
  std::string text_;
};

// One section in a process with `ids`: the calls of entering, the ids inside, the calls of leaving
// and the ids afterwards, or what remains when it cannot be entered.
std::string PassThrough(const Ids& ids, int failing_call = 0) {
  return RunInChild([&] {
    BecomeIds(ids);
    CredentialCalls calls(failing_call);
    std::string text;
    errno = ENOTTY;
    const bool entered = RunPrivileged(kSite, [&] {
      text = calls.Take() + "errno " + std::to_string(errno) + "\n" + ToText(CurrentIds()) + "\n";
    });
    const int reason = errno;
    text += calls.Take() + (entered ? "" : "not entered\n");
    return text + "errno " + std::to_string(reason) + "\n" + ToText(CurrentIds());
  });
}

class PrivilegeGuardTest : public PlatformTest {
 protected:
  void SetUp() override {
    if (!lab::HasOtherUsers()) {
      GTEST_SKIP() << "there is no other user in a lab of an ordinary user";
    }
    WriteRecord(kRecord);
  }

  ~PrivilegeGuardTest() override { chmod(kFolder, 0700); }

  static constexpr char kFolder[] = "/usr/kivo/etc/veltrix-account/private";
};

TEST_F(PrivilegeGuardTest, RootMakesNoCallAndLogsNothing) {
  EXPECT_EQ(PassThrough(kRoot), "errno 25\nuid 0 0 0 gid 0 0 0\nerrno 25\nuid 0 0 0 gid 0 0 0");
  EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(PrivilegeGuardTest, RootOfAnotherGroupMakesNoCallEither) {
  EXPECT_EQ(PassThrough(kGroupDropped),
            "errno 25\nuid 0 0 0 gid 0 100 0\nerrno 25\nuid 0 0 0 gid 0 100 0");
  EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(PrivilegeGuardTest, DroppedUserIsRaisedAndPutBackWithoutAGroupCall) {
  EXPECT_EQ(PassThrough(kUserDropped),
            "setresuid(-1, 0, -1)\n"
            "errno 0\nuid 0 0 0 gid 0 0 0\n"
            "setresuid(-1, 0, -1)\nsetresuid(-1, 1026, -1)\n"
            "errno 0\nuid 0 1026 0 gid 0 0 0");
  EXPECT_THAT(LogWithPriorities(), ElementsAre("auth.info guarded WARNING: setresuid(-1, 0, -1)",
                                               "auth.info guarded WARNING: setresuid(-1, 0, -1)"));
}

TEST_F(PrivilegeGuardTest, DroppedUserAndGroupAreRaisedGroupFirstAndPutBackInThreeCalls) {
  EXPECT_EQ(PassThrough(kBothDropped),
            "setresgid(-1, 0, -1)\nsetresuid(-1, 0, -1)\n"
            "errno 0\nuid 0 0 0 gid 0 0 0\n"
            "setresuid(-1, 0, -1)\nsetresgid(-1, 100, -1)\nsetresuid(-1, 1026, -1)\n"
            "errno 0\nuid 0 1026 0 gid 0 100 0");
  EXPECT_THAT(LogWithPriorities(), ElementsAre("auth.info guarded WARNING: setresgid(-1, 0, -1)",
                                               "auth.info guarded WARNING: setresuid(-1, 0, -1)",
                                               "auth.info guarded WARNING: setresuid(-1, 0, -1)"));
}

TEST_F(PrivilegeGuardTest, RealIdsStayAsTheyAre) {
  EXPECT_THAT(PassThrough(kOnlySavedIsRoot), HasSubstr("\nuid 1026 0 0 gid 100 0 0\n"));
  EXPECT_THAT(PassThrough(kOnlySavedIsRoot), testing::EndsWith("\nuid 1026 1026 0 gid 100 100 0"));
}

TEST_F(PrivilegeGuardTest, LinesNameTheGuardedPlace) {
  (void)PassThrough(kUserDropped);
  EXPECT_THAT(LogWithLines(), testing::Each(testing::StartsWith("guarded:5 WARNING")));
}

TEST_F(PrivilegeGuardTest, ProcessThatCannotGoBackDoesNotRunTheOperation) {
  EXPECT_EQ(PassThrough(kNoWayBack),
            "setresgid(-1, 0, -1)\nnot entered\nerrno 1\nuid 1026 1026 1026 gid 100 100 100");
  EXPECT_THAT(LogWithPriorities(),
              ElementsAre("auth.err guarded ERROR: setresgid(-1, 0, -1) [Operation not permitted]",
                          "auth.err guarded ERROR: ENTERCriticalSection",
                          "user.err guarded Change permission failed"));
}

TEST_F(PrivilegeGuardTest, RootsGroupAloneDoesNotHelp) {
  EXPECT_EQ(PassThrough(kRootsGroupNoWayBack),
            "setresuid(-1, 0, -1)\nnot entered\nerrno 1\nuid 1026 1026 1026 gid 0 0 0");
  EXPECT_THAT(LogWithPriorities(),
              ElementsAre("auth.err guarded ERROR: setresuid(-1, 0, -1) [Operation not permitted]",
                          "auth.err guarded ERROR: ENTERCriticalSection",
                          "user.err guarded Change permission failed"));
}

TEST_F(PrivilegeGuardTest, HalfRaisedPrivilegesStayRaised) {
  EXPECT_EQ(PassThrough(kOnlyGroupComesBack),
            "setresgid(-1, 0, -1)\nsetresuid(-1, 0, -1)\nnot entered\n"
            "errno 1\nuid 1026 1026 1026 gid 0 0 0");
  EXPECT_THAT(LogWithPriorities(),
              ElementsAre("auth.info guarded WARNING: setresgid(-1, 0, -1)",
                          "auth.err guarded ERROR: setresuid(-1, 0, -1) [Operation not permitted]",
                          "auth.err guarded ERROR: ENTERCriticalSection",
                          "user.err guarded Change permission failed"));
}

// The error of a call that failed for another reason than missing rights.
TEST_F(PrivilegeGuardTest, ReasonOfTheFailureIsShownAndErrnoBecomesEperm) {
  EXPECT_EQ(PassThrough(kBothDropped, 1),
            "setresgid(-1, 0, -1)\nnot entered\nerrno 1\nuid 0 1026 0 gid 0 100 0");
  EXPECT_THAT(Log(), ElementsAre("guarded ERROR: setresgid(-1, 0, -1) [Resource temporarily "
                                 "unavailable]",
                                 "guarded ERROR: ENTERCriticalSection",
                                 "guarded Change permission failed"));
}

struct FailedLeave {
  int call;  // of the five of a section
  const char* calls;
  const char* ids;
  const char* error;
  bool root_taken;  // once more, before the failure
};

void PrintTo(const FailedLeave& leave, std::ostream* out) { *out << leave.call; }

class FailedLeaveTest : public PrivilegeGuardTest,
                        public testing::WithParamInterface<FailedLeave> {};

TEST_P(FailedLeaveTest, SkipsTheRestAndIsLoggedOnly) {
  EXPECT_EQ(PassThrough(kBothDropped, GetParam().call),
            std::string("setresgid(-1, 0, -1)\nsetresuid(-1, 0, -1)\n"
                        "errno 0\nuid 0 0 0 gid 0 0 0\n") +
                GetParam().calls + "errno 1\n" + GetParam().ids);
  std::vector<std::string> lines = {"auth.info guarded WARNING: setresgid(-1, 0, -1)",
                                    "auth.info guarded WARNING: setresuid(-1, 0, -1)"};
  if (GetParam().root_taken) lines.emplace_back("auth.info guarded WARNING: setresuid(-1, 0, -1)");
  lines.push_back(std::string("auth.err guarded ERROR: ") + GetParam().error +
                  " [Resource temporarily unavailable]");
  lines.emplace_back("auth.err guarded ERROR: LEAVECriticalSection");
  EXPECT_EQ(LogWithPriorities(), lines);
}

INSTANTIATE_TEST_SUITE_P(
    Calls, FailedLeaveTest,
    testing::Values(FailedLeave{3, "setresuid(-1, 0, -1)\n", "uid 0 0 0 gid 0 0 0",
                                "setresuid(-1, 0, -1)", false},
                    FailedLeave{4, "setresuid(-1, 0, -1)\nsetresgid(-1, 100, -1)\n",
                                "uid 0 0 0 gid 0 0 0", "setresgid(-1, 100, -1)", true},
                    FailedLeave{5,
                                "setresuid(-1, 0, -1)\nsetresgid(-1, 100, -1)\n"
                                "setresuid(-1, 1026, -1)\n",
                                "uid 0 0 0 gid 0 100 0", "setresuid(-1, 1026, -1)", true}));

// A real failure of leaving: the operation gave root away for good.
TEST_F(PrivilegeGuardTest, GroupThatCannotBePutBackIsLogged) {
  const std::string text = RunInChild([] {
    BecomeIds(kBothDropped);
    const bool entered =
        RunPrivileged(kSite, [] { (void)interpose::RealSetresuid(kUser, kUser, kUser); });
    return std::string(entered ? "entered " : "") + std::to_string(errno) + " " +
           ToText(CurrentIds());
  });
  EXPECT_EQ(text, "entered 1 uid 1026 1026 1026 gid 0 0 0");
  EXPECT_THAT(LogWithPriorities(),
              ElementsAre("auth.info guarded WARNING: setresgid(-1, 0, -1)",
                          "auth.info guarded WARNING: setresuid(-1, 0, -1)",
                          "auth.err guarded ERROR: setresgid(-1, 100, -1) [Operation not "
                          "permitted]",
                          "auth.err guarded ERROR: LEAVECriticalSection"));
}

// The ids are put back also when the operation throws.
TEST_F(PrivilegeGuardTest, ExceptionOfTheOperationLeavesTheSection) {
  const std::string text = RunInChild([] {
    BecomeIds(kBothDropped);
    try {
      (void)RunPrivileged(kSite, [] { throw std::runtime_error("operation"); });
    } catch (const std::runtime_error&) {
    }
    return ToText(CurrentIds());
  });
  EXPECT_EQ(text, "uid 0 1026 0 gid 0 100 0");
}

TEST_F(PrivilegeGuardTest, PermissionFailureIsLoggedOnlyWhileErrnoSaysSo) {
  errno = 0;
  LogPermissionFailure(kSite);
  EXPECT_THAT(Log(), IsEmpty());
  errno = EPERM;
  LogPermissionFailure(kSite);
  EXPECT_THAT(Log(), ElementsAre("guarded Change permission failed"));
}

// A protected operation of the program, run in a child; it tells its outcome as text.
struct GuardedFlow {
  const char* name;
  const char* file;  // in its log lines
  std::function<std::string()> run;
  const char* outcome;  // with privileges
  const char* refused;  // without
  const char* record;   // afterwards, with privileges
};

void PrintTo(const GuardedFlow& flow, std::ostream* out) { *out << flow.name; }

std::string Outcome(const std::function<std::string()>& flow) {
  try {
    return flow();
  } catch (const ZomiException& failure) {
    return "exception " + std::to_string(failure.code());
  }
}

std::string ResultAndCode(int result) {
  return std::to_string(result) + " " + std::to_string(LastErrorCode());
}

std::string ReadCredentials() {
  const auto credentials = std::make_unique<LegacyCredentials>();
  const int result = ZomiConfigGet(credentials.get());
  return ResultAndCode(result) + " " + credentials->zomi_id.data() + " " +
         credentials->zomi_pw.data();
}

std::string ReadData() {
  AccountData data;
  const int result = ReadAccountData(data);
  return std::to_string(result) + " " + data.zomi_id;
}

std::string SetCountry() {
  User().Set(record::kCountry, "CH");
  return "set";
}

std::vector<GuardedFlow> GuardedFlows() {
  return {
      {"UserRead", "user", [] { return User().Get(record::kZomiId); }, "ann", "exception 6",
       kRecord},
      {"UserWrite", "user", SetCountry, "set", "exception 6",
       "zomiID=\"ann\"\nzomiPW=\"pw\"\ncountry=\"CH\"\n"},
      {"CredentialRead", "zomi_config_get", ReadCredentials, "0 0 ann pw", "-1 6  ", kRecord},
      {"Removal", "zomi_config_remove", [] { return ResultAndCode(ZomiConfigRemove()); }, "0 0",
       "-1 0", ""},
      {"WholeRead", "user", ReadData, "0 ann", "-1 ", kRecord},
  };
}

std::string RunFlow(const GuardedFlow& flow, const Ids& ids, int failing_call = 0) {
  return RunInChild([&] {
    BecomeIds(ids);
    SetLastErrorCode(kSuccess);
    CredentialCalls calls(failing_call);
    const std::string outcome = Outcome(flow.run);
    return outcome + "\n" + calls.Take();
  });
}

std::vector<std::string> WithFile(const std::string& file, std::vector<std::string> lines) {
  for (std::string& line : lines) line.replace(line.find('@'), 1, file);
  return lines;
}

class GuardedFlowTest : public PrivilegeGuardTest,
                        public testing::WithParamInterface<GuardedFlow> {};

TEST_P(GuardedFlowTest, RunsAsRootWithoutACall) {
  EXPECT_EQ(RunFlow(GetParam(), kRoot), std::string(GetParam().outcome) + "\n");
  EXPECT_EQ(ReadRecord(), GetParam().record);
  EXPECT_THAT(Log(), IsEmpty());
}

TEST_P(GuardedFlowTest, RunsWithDroppedPrivilegesInFiveCalls) {
  EXPECT_EQ(RunFlow(GetParam(), kBothDropped),
            std::string(GetParam().outcome) +
                "\nsetresgid(-1, 0, -1)\nsetresuid(-1, 0, -1)\nsetresuid(-1, 0, -1)\n"
                "setresgid(-1, 100, -1)\nsetresuid(-1, 1026, -1)\n");
  EXPECT_EQ(ReadRecord(), GetParam().record);
  EXPECT_THAT(LogWithPriorities(),
              testing::ElementsAreArray(
                  WithFile(GetParam().file, {"auth.info @ WARNING: setresgid(-1, 0, -1)",
                                             "auth.info @ WARNING: setresuid(-1, 0, -1)",
                                             "auth.info @ WARNING: setresuid(-1, 0, -1)"})));
}

TEST_P(GuardedFlowTest, WrittenRecordStaysRootsAlone) {
  (void)RunFlow(GetParam(), kBothDropped);
  EXPECT_EQ(RecordProtection(), HasRecord() ? "600 0:0" : "none");
}

TEST_P(GuardedFlowTest, FailsWithoutPrivilegesAndTouchesNothing) {
  chmod(kFolder, 0755);  // or it would fail earlier, for want of the folder
  EXPECT_EQ(RunFlow(GetParam(), kNoWayBack),
            std::string(GetParam().refused) + "\nsetresgid(-1, 0, -1)\n");
  EXPECT_EQ(ReadRecord(), kRecord);
  EXPECT_EQ(RecordProtection(), "600 0:0");
  EXPECT_THAT(
      LogWithPriorities(),
      testing::ElementsAreArray(WithFile(
          GetParam().file,
          {"auth.err @ ERROR: setresgid(-1, 0, -1) [Operation not permitted]",
           "auth.err @ ERROR: ENTERCriticalSection", "user.err @ Change permission failed"})));
}

TEST_P(GuardedFlowTest, FailedLeaveDoesNotSpoilTheResult) {
  EXPECT_EQ(RunFlow(GetParam(), kBothDropped, 4),
            std::string(GetParam().outcome) +
                "\nsetresgid(-1, 0, -1)\nsetresuid(-1, 0, -1)\nsetresuid(-1, 0, -1)\n"
                "setresgid(-1, 100, -1)\n");
  EXPECT_EQ(ReadRecord(), GetParam().record);
  const std::vector<std::string> lines = LogWithPriorities();
  EXPECT_THAT(
      lines, testing::IsSupersetOf(WithFile(
                 GetParam().file, {"auth.err @ ERROR: setresgid(-1, 100, -1) [Resource temporarily "
                                   "unavailable]",
                                   "auth.err @ ERROR: LEAVECriticalSection"})));
  EXPECT_THAT(lines, testing::Not(testing::Contains(HasSubstr("Change permission failed"))));
}

INSTANTIATE_TEST_SUITE_P(Flows, GuardedFlowTest, testing::ValuesIn(GuardedFlows()),
                         [](const testing::TestParamInfo<GuardedFlow>& flow) {
                           return flow.param.name;
                         });

TEST_F(PrivilegeGuardTest, UserDefinedHostThatCannotBeReadFallsBackToTheBuiltInOne) {
  const std::string host = RunInChild([] {
    BecomeIds(kNoWayBack);
    return ServerInfo().AccountHost();
  });
  EXPECT_EQ(host, "https://account.veltrix.example");
  EXPECT_THAT(Log(), testing::IsSupersetOf({"user Change permission failed",
                                            "server_info Failed to get user defined account "
                                            "host"}));
}

TEST_F(PrivilegeGuardTest, AChangeIsTakenBackWithDroppedPrivileges) {
  const std::string text = RunInChild([] {
    BecomeIds(kBothDropped);
    const LinkLock lock;
    RecordChange change;
    change.Set(lock, record::kZomiId, std::string("other"));
    change.Undo(lock);
    return std::string("done");
  });
  EXPECT_EQ(text, "done");
  EXPECT_EQ(ReadRecord(), kRecord);
  EXPECT_EQ(RecordProtection(), "600 0:0");
}

// The setting of the key logs as ever; what the change adds to it does not.
TEST_F(PrivilegeGuardTest, WhatAChangeDoesBesideTheWriteIsSilent) {
  const std::string calls = RunInChild([] {
    BecomeIds(kBothDropped);
    const LinkLock lock;
    RecordChange change;
    change.Set(lock, record::kZomiId, std::string("other"));
    return std::string("done");
  });
  EXPECT_EQ(calls, "done");
  EXPECT_THAT(LogWithPriorities(), testing::ElementsAreArray(WithFile(
                                       "user", {"auth.info @ WARNING: setresgid(-1, 0, -1)",
                                                "auth.info @ WARNING: setresuid(-1, 0, -1)",
                                                "auth.info @ WARNING: setresuid(-1, 0, -1)"})));
}

TEST_F(PrivilegeGuardTest, ASilentSectionSaysNothingOfItsFailureEither) {
  const std::string entered = RunInChild([] {
    BecomeIds(kNoWayBack);
    return std::string(RunPrivilegedSilently([] {}) ? "entered" : "refused");
  });
  EXPECT_EQ(entered, "refused");
  EXPECT_THAT(Log(), IsEmpty());
}

}  // namespace
}  // namespace nodelink
