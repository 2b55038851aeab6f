// The programs that talk to the network: without rights, and not to be missed.
#include <dirent.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <set>

#include "lab/users.h"
#include "tests/e2e/https_flow.h"

namespace {

using testing::AllOf;
using testing::Contains;
using testing::Each;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::Not;
using testing::SizeIs;
using testing::StartsWith;

constexpr char kHttpStack[] = "lib(curl|ssl|crypto|nghttp2|gnutls)[.-]";
constexpr char kTrace[] = "/var/tmp/trace";

std::vector<std::string> LinesWith(const char* path, const std::string& text) {
  std::ifstream file(path);
  std::vector<std::string> lines;
  for (std::string line; std::getline(file, line);) {
    if (line.find(text) != std::string::npos) lines.push_back(line);
  }
  return lines;
}

class Worker : public DeviceTest {
 protected:
  void LinkByPassword() {
    ASSERT_EQ(LogIn({"--password", kEmail}, kPassword + std::string("\n")).exit_status, 0);
    SetLastQueryAge(3600);
  }

  void ExpectNotAsked(const std::string& why) {
    EXPECT_THAT(Log(), Contains(AllOf(StartsWith("http_client Failed to ask "),
                                      HasSubstr(lab::kHttpWorker), HasSubstr(why))));
  }
};

TEST_F(Worker, WithoutItARequestIsNotSentAndTheLogSaysWhy) {
  LinkByPassword();
  std::filesystem::remove(lab::kHttpWorker);
  const std::string record = test_files::Read(kRecord);
  EXPECT_EQ(Run({"--query_account"}).out, "Query account failed");
  EXPECT_EQ(Run({"--report_info"}).exit_status, 255);
  EXPECT_EQ(test_files::Read(kRecord), record);
  ExpectNotAsked("failed to start: No such file or directory");
}

TEST_F(Worker, WithoutItALogoutKeepsTheAccount) {
  LinkByPassword();
  std::filesystem::remove(lab::kHttpWorker);
  EXPECT_THAT(Run({"--logout"}).out, StartsWith("Failed to logout: "));
  EXPECT_TRUE(test_files::Exists(kRecord));
}

TEST_F(Worker, OfAnotherMakeGivesNoAnswer) {
  LinkByPassword();
  std::filesystem::copy_file(lab::kCloudWorker, lab::kHttpWorker,
                             std::filesystem::copy_options::overwrite_existing);
  EXPECT_EQ(Run({"--query_account"}).out, "Query account failed");
  ExpectNotAsked("no answer: ");
}

TEST_F(Worker, StandsBesideTheProgramsInABuildFolder) {
  std::filesystem::remove(lab::kHttpWorker);
  std::filesystem::remove(lab::kCloudWorker);
  const auto login = lab::RunProcess({BUILT_LOGIN, "--password", kEmail},
                                     {.stdin_text = kPassword + std::string("\n")});
  EXPECT_EQ(login.exit_status, 0) << login.err;
  SetLastQueryAge(3600);
  EXPECT_NE(lab::RunProcess({BUILT_PROGRAM, "--query_account"}).out, "Query account failed");
}

TEST_F(Worker, IsOneForAllRequestsAndReadsTheAuthoritiesOnce) {
#ifdef __SANITIZE_ADDRESS__
  GTEST_SKIP() << "the sanitizer's leak checker and a tracer exclude each other";
#endif
  LinkByPassword();
  const std::size_t before = Requests().size();
  ASSERT_EQ(lab::RunProcess({"strace", "-f", "-o", kTrace, "-e", "trace=openat,execve", kProgram,
                             "--report_info"})
                .exit_status,
            0);
  EXPECT_EQ(Requests().size(), before + 3) << "the report, and two for its tokens";
  EXPECT_THAT(LinesWith(kTrace, std::string("execve(\"") + lab::kHttpWorker), SizeIs(1));
  EXPECT_THAT(LinesWith(kTrace, "ca-certificates.crt"), SizeIs(1));
}

TEST_F(Worker, WithoutThatOfTheCloudServiceNoApiKeyIsRegistered) {
  std::filesystem::remove(lab::kCloudWorker);
  const auto result = LogIn({"--password", kEmail}, kPassword + std::string("\n"));
  EXPECT_EQ(result.exit_status, 1);
  EXPECT_THAT(result.err, StartsWith("nodelink-login: "));
  EXPECT_FALSE(test_files::Exists(kRecord));
  EXPECT_FALSE(test_files::Exists(kApiKeyFile));
  EXPECT_THAT(Log(), Contains(AllOf(StartsWith("Failed to ask "), HasSubstr(lab::kCloudWorker))));
}

std::string WorkerOf(const HttpsFlow& flow) {
  return flow.request.transport() == lab::Transport::kPlatform ? "kivo-cloudservice"
                                                               : "nodelink-http";
}

TEST_F(Worker, IsNotStartedForAnAnswerFromTheRecord) {
  LinkDevice();
  ASSERT_NE(Run({"--query_account"}).out, "Query account failed");
  std::filesystem::remove(lab::kHttpWorker);
  EXPECT_NE(Run({"--query_account", "--cache"}).out, "Query account failed");
  EXPECT_NE(Run({"--query_account"}).out, "Query account failed");
  EXPECT_THAT(Log(), Each(Not(HasSubstr("Failed to ask"))));
}

// --- One that was taken over. ---

class HostileWorkerTest : public HttpsFlowTest {
 protected:
  // The worker is one of this character from now on (tests/support/hostile_program.cpp).
  static void Become(const std::string& character) {
    const std::string worker = "/usr/kivo/lib/" + WorkerOf(GetParam());
    const std::string file = "/usr/kivo/lib/" + character;
    std::filesystem::remove(worker);
    std::filesystem::remove(file);
    std::filesystem::create_symlink(HOSTILE_PROGRAM, file);
    std::filesystem::create_symlink(file, worker);
  }
};

// Of the cloud service the platform says so itself.
TEST_P(HostileWorkerTest, IsAsGoodAsNoServer) {
  const std::string err = GetParam().request.transport() == lab::Transport::kPlatform
                              ? "nodelink-login: System error (code 24)\n"
                              : GetParam().unreached().err;
  for (const char* character : {"dead", "gone", "halfway", "huge", "talkative", "brief", "strange",
                                "unknown", "refused", "hasty", "short", "echo"}) {
    SCOPED_TRACE(character);
    Prepare();
    Become(character);
    sink_.Clear();
    const std::string before = State();
    const auto result = RunFlow();
    ExpectFailure(result);
    EXPECT_THAT(result.out, StartsWith(GetParam().unreached().out));
    EXPECT_THAT(result.err, StartsWith(err));
    EXPECT_EQ(State(), before);
    EXPECT_THAT(Log(), Contains(HasSubstr("Failed to ask ")).Times(1));
  }
}

INSTANTIATE_TEST_SUITE_P(Flows, HostileWorkerTest, testing::ValuesIn(HttpsFlows()), NameOfFlow);

// --- Who has rights, and who has a network. ---

bool IsNumber(const std::string& text) {
  return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
}

std::string LinkAt(const std::string& path) {
  std::error_code unreadable;
  return std::filesystem::read_symlink(path, unreadable).string();
}

// The ids of a process: real, effective, saved, of files.
std::string UserIds(const std::string& process) {
  std::smatch ids;
  const std::string status = test_files::Read(process + "/status");
  return std::regex_search(status, ids, std::regex("\nUid:([^\n]*)")) ? ids[1].str() : "";
}

bool MayBeRoot(const std::string& process) {
  return std::regex_search(UserIds(process), std::regex("(^|\\s)0(\\s|$)"));
}

std::set<std::string> NetworkSockets() {
  std::set<std::string> inodes;
  for (const char* table : {"tcp", "tcp6", "udp", "udp6", "raw", "raw6"}) {
    std::ifstream lines(std::string("/proc/net/") + table);
    std::string word;
    for (std::string line; std::getline(lines, line);) {
      std::istringstream words(line);
      for (int column = 0; column < 10; ++column) words >> word;
      inodes.insert("socket:[" + word + "]");
    }
  }
  return inodes;
}

bool HasNetworkSocket(const std::string& process) {
  const std::set<std::string> sockets = NetworkSockets();
  for (const auto& entry : std::filesystem::directory_iterator(process + "/fd")) {
    if (sockets.contains(LinkAt(entry.path()))) return true;
  }
  return false;
}

// The device's programs that run, each with what it has: "root", "network", "HTTP".
std::set<std::string> RunningPrograms() {
  std::set<std::string> found;
  for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
    const std::string process = entry.path();
    const std::string program = LinkAt(process + "/exe");
    if (!IsNumber(entry.path().filename()) || !program.starts_with("/usr/kivo/")) continue;
    const bool has_stack =
        std::regex_search(test_files::Read(process + "/maps"), std::regex(kHttpStack));
    found.insert(program.substr(program.rfind('/') + 1) + (MayBeRoot(process) ? " root" : "") +
                 (HasNetworkSocket(process) ? " network" : "") + (has_stack ? " HTTP" : ""));
  }
  return found;
}

class RightsTest : public HttpsFlowTest {
 protected:
  static std::string Program() {
    const std::string& path = GetParam().flow.command.words.front();
    return path.substr(path.rfind('/') + 1);
  }
  static std::string WorkerName() { return WorkerOf(GetParam()); }
};

TEST_P(RightsTest, WhoeverIsRootHasNoNetworkAndWhoeverHasOneIsNotRoot) {
  if (!lab::HasOtherUsers()) GTEST_SKIP() << "the lab of an ordinary user has no other users";
  Prepare();
  std::vector<std::set<std::string>> seen;
  bad_.SetAnswer({.status = 500}, [&seen] { seen.push_back(RunningPrograms()); });
  ExpectFailure(RunFlow());
  EXPECT_THAT(seen, Not(IsEmpty()));
  EXPECT_THAT(seen,
              Each(testing::IsSupersetOf({Program() + " root", WorkerName() + " network HTTP"})));
  for (const auto& programs : seen) {
    EXPECT_THAT(programs, Each(testing::AnyOf(Program() + " root", WorkerName() + " network HTTP",
                                              "nodelink-http HTTP", "nodelink-http network HTTP")));
  }
}

TEST_P(RightsTest, NoSocketForANetworkIsMadeButByTheWorkers) {
#ifdef __SANITIZE_ADDRESS__
  GTEST_SKIP() << "the sanitizer's leak checker and a tracer exclude each other";
#endif
  Prepare();
  bad_.SetAnswer({.status = 500});
  ExpectFailure(RunFlow({"strace", "-f", "-Y", "-o", kTrace, "-e", "trace=socket"}));
  std::vector<std::string> makers;
  for (const std::string& line : LinesWith(kTrace, "socket(")) {
    if (line.find("AF_UNIX") == std::string::npos) makers.push_back(line);
  }
  EXPECT_THAT(makers, Not(IsEmpty()));
  EXPECT_THAT(makers, Each(MatchesRegex("[0-9]+<(nodelink-http|kivo-cloudservi).*")));
}

INSTANTIATE_TEST_SUITE_P(Flows, RightsTest, testing::ValuesIn(HttpsFlows()), NameOfFlow);

}  // namespace
