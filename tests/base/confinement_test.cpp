#include "base/confinement.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/landlock.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <functional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "base/confined_program.h"
#include "base/unique_fd.h"
#include "lab/files.h"
#include "lab/users.h"
#include "tests/support/child.h"

namespace {

using base::ConfinedProgram;
using testing::HasSubstr;

constexpr char kTries[] = CONFINED_TRIES;  // confined_tries.cpp
constexpr char kAccounts[] = "/etc/passwd";
constexpr char kVictim[] = "/tmp/open/victim";

constexpr std::array kSecrets = {
    "/usr/kivo/etc/veltrix-account/private/user.conf",
    "/usr/kivo/etc/veltrix-account/private/login_token.json",
    "/usr/kivo/etc/cloudservice/api_key",
    "/etc/shadow",
    "/etc/cron.d/x",
    kVictim,
};

// Who asks. All three are found among the callers of the real workers.
struct Caller {
  const char* name;
  Ids ids;
};

constexpr Caller kRoot = {"Root", {}};
constexpr Caller kUser = {"OrdinaryUser", {1026, 1026, 1026, 100, 100, 100}};
constexpr Caller kService = {"ServiceAccount", {0, 1026, 1026, 0, 100, 100}};

void PrintTo(const Caller& caller, std::ostream* out) { *out << caller.name; }

std::string Answer(ConfinedProgram& program, const std::string& question) {
  constexpr std::chrono::seconds kLimit{60};
  std::string why = "no reason";
  const auto answer = program.Ask(question, 64 * 1024, kLimit, why);
  return answer ? *answer : why;
}

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

// The value of a line "NAME:\tVALUE" of a file of /proc.
std::string Field(const std::string& text, const std::string& name) {
  for (const std::string& line : Lines(text)) {
    if (line.starts_with(name + ":")) {
      return line.substr(line.find_first_not_of(" \t", name.size() + 1));
    }
  }
  return "no " + name;
}

bool HasLandlock() {
  return syscall(SYS_landlock_create_ruleset, nullptr, 0, LANDLOCK_CREATE_RULESET_VERSION) > 0;
}

// A local socket on which everybody may connect.
base::UniqueFd LocalService(const char* path) {
  test_files::Remove(path);
  base::UniqueFd service(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  std::string_view(path).copy(address.sun_path, sizeof address.sun_path - 1);
  if (bind(service.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      chmod(path, 0777) != 0 || listen(service.get(), 1) != 0) {
    throw std::runtime_error("cannot serve");
  }
  return service;
}

class Confinement : public testing::TestWithParam<Caller> {
 protected:
  void SetUp() override {
    if (GetParam().ids != Ids{} && !lab::HasOtherUsers()) {
      GTEST_SKIP() << "the lab of an ordinary user has no other users";
    }
    test_files::MakeFolder("/tmp/open/folder", 0777);
    test_files::MakeFolder("/tmp/open", 0777);
    test_files::Write("/etc/ssl/certs/ca-certificates.crt", "a certificate");
    for (const char* path : kSecrets) test_files::Write(path, "secret", 0600);
  }

  // What `flow` gives in a process of the caller's ids.
  static std::string AsCaller(const std::function<std::string(ConfinedProgram&)>& flow) {
    return RunInChild([&] {
      BecomeIds(GetParam().ids);
      ConfinedProgram program(kTries);
      return flow(program);
    });
  }

  static std::string AnswerToCaller(const std::string& question) {
    return AsCaller([&](ConfinedProgram& program) { return Answer(program, question); });
  }

  // /proc/PID/NAME of the program.
  static std::string OfProgram(const std::string& name) {
    return AsCaller([&](ConfinedProgram& program) {
      return test_files::Read("/proc/" + Answer(program, "pid") + "/" + name);
    });
  }

  // Of `questions` those that are answered by something else, with their answers.
  static std::string NotAnswered(const std::string& expected,
                                 const std::vector<std::string>& questions) {
    return AsCaller([&](ConfinedProgram& program) {
      std::string list;
      for (const std::string& question : questions) {
        const std::string answer = Answer(program, question);
        if (answer != expected) list.append(question).append(": ").append(answer).append("\n");
      }
      return list;
    });
  }

  static std::string NotRefused(const std::vector<std::string>& questions, int reason) {
    return NotAnswered(std::to_string(reason), questions);
  }

  static std::vector<std::string> Each(const std::string& word) {
    std::vector<std::string> questions;
    questions.reserve(kSecrets.size());
    for (const char* path : kSecrets) questions.push_back(word + " " + path);
    return questions;
  }

  static void ExpectUntouched() {
    for (const char* path : kSecrets) {
      EXPECT_EQ(test_files::Read(path), "secret") << path;
    }
    EXPECT_THAT(test_files::NamesIn("/tmp/open"), testing::ElementsAre("folder", "victim"));
  }

  // With the files open to everybody it is the confinement alone that refuses.
  static void OpenToAll() {
    for (const char* path : kSecrets) {
      namespace fs = std::filesystem;
      fs::permissions(path, fs::perms(0666));
      fs::permissions(fs::path(path).parent_path(), fs::perms(0777));
    }
  }
};

INSTANTIATE_TEST_SUITE_P(Of, Confinement, testing::Values(kRoot, kUser, kService),
                         [](const auto& caller) { return caller.param.name; });

TEST_P(Confinement, RefusesSystemCalls) {
  const std::vector<std::string> names = Lines(AnswerToCaller("names"));
  EXPECT_GT(names.size(), 100U);
  EXPECT_EQ(NotRefused(names, EPERM), "");
  ExpectUntouched();
}

TEST_P(Confinement, RefusesFilesOfOthers) {
  EXPECT_EQ(NotRefused(Each("read"), EACCES), "");
  EXPECT_EQ(NotRefused(Each("write"), EPERM), "");
  ExpectUntouched();
}

TEST_P(Confinement, RefusesFilesThatAreOpenToAll) {
  OpenToAll();
  EXPECT_EQ(NotRefused(Each("write"), EPERM), "");
  if (HasLandlock()) {
    EXPECT_EQ(NotRefused(Each("read"), EACCES), "");
  }
  ExpectUntouched();
}

TEST_P(Confinement, RefusesNewFilesEverywhere) {
  EXPECT_EQ(NotRefused({"create /tmp/x", "create /var/tmp/x", "create /dev/shm/x",
                        "create /tmp/open/x", "create /dev/null"},
                       EPERM),
            "");
  ExpectUntouched();
}

// A process of the same user could otherwise look at the caller there.
TEST_P(Confinement, RefusesWhatTheKernelTellsOfProcesses) {
  const std::string list = AsCaller([](ConfinedProgram& program) {
    std::string answers;
    for (const char* name : {"mem", "environ", "maps", "cmdline", "fd", "root", "cwd"}) {
      const std::string path = "/proc/" + std::to_string(getpid()) + "/" + name;
      for (const std::string& question : {"read " + path, "read /proc/self/" + std::string(name)}) {
        answers += Answer(program, question) == std::to_string(EACCES) ? "" : question + "\n";
      }
    }
    return answers + Answer(program, "write /proc/self/mem");
  });
  if (!HasLandlock()) GTEST_SKIP() << "this kernel confines no files";
  EXPECT_EQ(list, std::to_string(EPERM));
}

TEST_P(Confinement, RefusesFoldersAndDevices) {
  if (!HasLandlock()) GTEST_SKIP() << "this kernel confines no files";
  EXPECT_EQ(NotRefused({"read /", "read /tmp", "read /etc", "read /etc/ssl/certs", "read /proc",
                        "read /etc/passwd", "read /dev/zero", "read /dev/random", "read /bin/true"},
                       EACCES),
            "");
}

TEST_P(Confinement, RefusesAByteInAFileThatWasOpenBefore) {
  EXPECT_EQ(AnswerToCaller("write"), std::to_string(EFBIG));
}

// Their successors would not let the filter see what is asked for, so they do not exist.
TEST_P(Confinement, LacksCallsThatItCannotJudge) {
  EXPECT_EQ(NotRefused({"clone3", "openat2", "close_range"}, ENOSYS), "");
}

TEST_P(Confinement, LetsNoPairReachALocalService) {
  const base::UniqueFd service = LocalService("/tmp/service");
  EXPECT_EQ(NotRefused({"connect a pair", "send from a pair", "connect the channel"}, EISCONN), "");
  EXPECT_EQ(NotRefused({"disconnect a pair"}, EINVAL), "");
}

TEST_P(Confinement, BoundsDescriptors) { EXPECT_EQ(AnswerToCaller("open many"), "24"); }

#ifndef __SANITIZE_ADDRESS__  // which takes terabytes
TEST_P(Confinement, BoundsMemory) {
  EXPECT_EQ(AnswerToCaller("map a gigabyte"), std::to_string(ENOMEM));
}
#endif

#ifdef __x86_64__
// Under other conventions the numbers of the calls mean something else.
TEST_P(Confinement, EndsAtACallOfAnotherConvention) {
  EXPECT_THAT(AnswerToCaller("a call of 32 bits"), testing::StartsWith("no answer: "));
  EXPECT_THAT(AnswerToCaller("a call of x32"), testing::StartsWith("no answer: "));
}
#endif

// --- What still works. ---

// A listener of this process on the loopback network.
class Listener {
 public:
  Listener() {
    sockaddr_in address = {};
    socklen_t size = sizeof address;
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    auto* general = reinterpret_cast<sockaddr*>(&address);
    if (bind(fd_.get(), general, size) != 0 || listen(fd_.get(), 1) != 0 ||
        getsockname(fd_.get(), general, &size) != 0) {
      throw std::runtime_error("cannot listen");
    }
    port_ = ntohs(address.sin_port);
  }

  std::string port() const { return std::to_string(port_); }

  base::UniqueFd Accept() const { return base::UniqueFd(accept(fd_.get(), nullptr, nullptr)); }

 private:
  base::UniqueFd fd_{socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)};
  in_port_t port_ = 0;
};

char Byte(const base::UniqueFd& connection) {
  char byte = '-';
  return recv(connection.get(), &byte, 1, 0) == 1 ? byte : '\0';
}

TEST_P(Confinement, LeavesWhatRequestsNeed) {
  EXPECT_EQ(NotAnswered("done", {"resolve account.veltrix.example", "resolve localhost",
                                 "use /etc/ssl/certs/ca-certificates.crt", "use /etc/hosts",
                                 "read /dev/null", "thread", "lots"}),
            "");
}

TEST_P(Confinement, LeavesConnections) {
  const Listener listener;
  EXPECT_EQ(AnswerToCaller("connect " + listener.port()), "done");
  EXPECT_EQ(Byte(listener.Accept()), 'x');
}

// --- What it has. ---

std::string Descriptors() {
#ifdef __SANITIZE_ADDRESS__
  return "0 null\n1 null\n2 other\n3 socket\n";  // the sanitizer's report is for whoever watches
#else
  return "0 null\n1 null\n2 null\n3 socket\n";
#endif
}

TEST_P(Confinement, LeavesNoDescriptorButTheChannel) {
  const base::UniqueFd secret(open(kVictim, O_RDWR));  // not close-on-exec
  const base::UniqueFd far_away(fcntl(secret.get(), F_DUPFD, 1000));
  ASSERT_TRUE(far_away);
  EXPECT_EQ(AnswerToCaller("descriptors"), Descriptors());
}

TEST_P(Confinement, LeavesNoDescriptorOfACallerWithoutStreams) {
  const std::string kinds = AsCaller([](ConfinedProgram& program) {
    for (int fd = 0; fd <= 2; ++fd) (void)close(fd);
    return Answer(program, "descriptors");
  });
  EXPECT_EQ(kinds, "0 null\n1 null\n2 null\n3 socket\n");
}

TEST_P(Confinement, LeavesNothingOfTheEnvironment) {
  const std::string variables = AsCaller([](ConfinedProgram& program) {
    setenv("LD_PRELOAD", "/tmp/open/victim", 1);
    setenv("https_proxy", "http://127.0.0.1:1", 1);
    return Answer(program, "environment");
  });
  EXPECT_EQ(variables, "PATH=/usr/bin:/bin\nLANG=C.UTF-8\n");
}

TEST_P(Confinement, LeavesNoCapability) {
  const std::string status = OfProgram("status");
  for (const char* set : {"CapInh", "CapPrm", "CapEff", "CapAmb"}) {
    EXPECT_EQ(Field(status, set), "0000000000000000") << set;
  }
  EXPECT_EQ(Field(status, "NoNewPrivs"), "1");
  EXPECT_EQ(Field(status, "Seccomp"), "2");
}

TEST_P(Confinement, LeavesNoSignalBlockedOrIgnored) {
  std::signal(SIGHUP, SIG_IGN);
  sigset_t all;
  sigfillset(&all);
  pthread_sigmask(SIG_BLOCK, &all, nullptr);
  const std::string status = OfProgram("status");
  EXPECT_EQ(Field(status, "SigBlk"), "0000000000000000");
  EXPECT_EQ(Field(status, "SigIgn").substr(0, 15), "000000000100000");  // SIGXFSZ: its own doing
}

TEST_P(Confinement, Limits) {
  const std::string limits = OfProgram("limits");
  EXPECT_THAT(limits, testing::ContainsRegex("Max core file size +0 +0 "));
  EXPECT_THAT(limits, testing::ContainsRegex("Max file size +0 +0 "));
  EXPECT_THAT(limits, testing::ContainsRegex("Max open files +64 +64 "));
}

// What cannot be traced belongs to root.
TEST_P(Confinement, HidesItsMemory) {
  const std::string owner = AsCaller([](ConfinedProgram& program) {
    struct stat status {};
    stat(("/proc/" + Answer(program, "pid") + "/mem").c_str(), &status);
    return std::to_string(status.st_uid);
  });
  EXPECT_EQ(owner, "0");
}

// Kills a caller whose program, asked `question`, has sent a byte to the listener, and waits for
// the end of the program: when nobody holds the other end of its connection.
void ExpectEndsWithItsCaller(const Caller& who, const std::string& question) {
  const Listener listener;
  const pid_t caller = fork();
  ASSERT_GE(caller, 0);
  if (caller == 0) {
    BecomeIds(who.ids);
    ConfinedProgram program(kTries);
    (void)Answer(program, question + " " + listener.port());
    pause();
  }
  const base::UniqueFd connection = listener.Accept();
  EXPECT_EQ(Byte(connection), 'x');
  ASSERT_EQ(kill(caller, SIGKILL), 0);
  EXPECT_EQ(waitpid(caller, nullptr, 0), caller);
  EXPECT_EQ(Byte(connection), '\0');
}

TEST_P(Confinement, EndsWithItsCallerWhenItWaitsForAQuestion) {
  ExpectEndsWithItsCaller(GetParam(), "connect");
}

// The kernel lets nobody signal what it may not: see base/confinement.h.
TEST_P(Confinement, EndsWithItsCallerWhateverItDoes) {
  if (GetParam().ids == kService.ids) {
    GTEST_SKIP() << "such a caller may not signal its program when it dies";
  }
  ExpectEndsWithItsCaller(GetParam(), "hang");
}

TEST_P(Confinement, CanBeStoppedWhateverItDoes) {
  const Listener listener;
  const std::string why = AsCaller([&](ConfinedProgram& program) {
    std::string reason;
    constexpr std::chrono::milliseconds kSoon{200};
    (void)Answer(program, "pid");
    (void)program.Ask("hang " + listener.port(), 1, kSoon, reason);
    const Ids ids = CurrentIds();
    return reason + (ids == GetParam().ids ? "" : ", with other ids");
  });
  EXPECT_EQ(why, "no answer: Connection timed out");
}

// --- As whom it runs. ---

std::string FourTimes(const std::string& id) { return id + "\t" + id + "\t" + id + "\t" + id; }

// Root's programs run as somebody else.
class ConfinementOfRoot : public Confinement {
 protected:
  void SetUp() override {
    if (!lab::HasOtherUsers()) GTEST_SKIP() << "the lab of an ordinary user has no other users";
    Confinement::SetUp();
  }

  static void ExpectIds(const std::string& user, const std::string& group) {
    const std::string status = OfProgram("status");
    EXPECT_EQ(Field(status, "Uid"), FourTimes(user));
    EXPECT_EQ(Field(status, "Gid"), FourTimes(group));
    EXPECT_THAT(Lines(status), testing::Contains("Groups:\t "));
  }
};

INSTANTIATE_TEST_SUITE_P(Of, ConfinementOfRoot, testing::Values(kRoot, kService),
                         [](const auto& caller) { return caller.param.name; });

TEST_P(ConfinementOfRoot, IsTheWorkersAccount) {
  EXPECT_THAT(test_files::Read(kAccounts), HasSubstr("\nnodelink-http:x:990:990:"));
  ExpectIds("990", "990");
}

TEST_P(ConfinementOfRoot, IsNobodyWithoutThatAccount) {
  test_files::Write(kAccounts, "root:x:0:0:::\nnobody:x:65533:65532:::\n");
  ExpectIds("65533", "65532");
}

TEST_P(ConfinementOfRoot, IsNobodyWhoeverThatMayBe) {
  test_files::Write(kAccounts, "nodelink-http:x:0:990:::\nnobody:x:0:65534:::\n");
  ExpectIds("65534", "65534");
  test_files::Remove(kAccounts);
  ExpectIds("65534", "65534");
}

TEST_P(ConfinementOfRoot, IsNeverOfRootsGroup) {
  test_files::Write(kAccounts, "nodelink-http:x:990:0:::\nnobody:x:65533:65532:::\n");
  ExpectIds("65533", "65532");
}

class ConfinementOfUser : public Confinement {};

INSTANTIATE_TEST_SUITE_P(Of, ConfinementOfUser, testing::Values(kUser),
                         [](const auto& caller) { return caller.param.name; });

TEST_P(ConfinementOfUser, IsTheSameUser) {
  const std::string status = OfProgram("status");
  EXPECT_EQ(Field(status, "Uid"), FourTimes("1026"));
  EXPECT_EQ(Field(status, "Gid"), FourTimes("100"));
}

}  // namespace
