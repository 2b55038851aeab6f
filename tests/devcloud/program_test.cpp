// zomi-devcloud as people start it.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <sstream>
#include <string>
#include <vector>

#include "base/unique_fd.h"
#include "tests/devcloud/http_client.h"
#include "tests/devcloud/temporary_folder.h"

namespace devcloud_test {
namespace {

using testing::StartsWith;

struct Pipe {
  Pipe() {
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) throw std::runtime_error("pipe");
    read = base::UniqueFd(ends[0]);
    write = base::UniqueFd(ends[1]);
  }
  base::UniqueFd read;
  base::UniqueFd write;
};

class Program {
 public:
  explicit Program(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), DEVCLOUD_PROGRAM);
    std::vector<char*> words;
    words.reserve(arguments.size() + 1);
    for (std::string& argument : arguments) words.push_back(argument.data());
    words.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out_.write.get(), STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, err_.write.get(), STDERR_FILENO);
    const int failed =
        ::posix_spawn(&pid_, DEVCLOUD_PROGRAM, &actions, nullptr, words.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (failed != 0) throw std::runtime_error("posix_spawn");
    out_.write = base::UniqueFd();
    err_.write = base::UniqueFd();
  }
  ~Program() {
    if (pid_ > 0) {
      ::kill(pid_, SIGKILL);
      ::waitpid(pid_, nullptr, 0);
    }
  }
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;

  [[nodiscard]] std::string ReadLine() const {
    std::string line;
    char c = 0;
    while (::read(out_.read.get(), &c, 1) == 1 && c != '\n') line += c;
    return line;
  }
  [[nodiscard]] std::string ReadOut() const { return ReadAll(out_.read.get()); }
  [[nodiscard]] std::string ReadErr() const { return ReadAll(err_.read.get()); }
  void Signal(int number) const { ::kill(pid_, number); }
  // The exit status, 128 and more for a signal.
  [[nodiscard]] int Wait() {
    int status = 0;
    ::waitpid(std::exchange(pid_, -1), &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }

 private:
  static std::string ReadAll(int fd) {
    std::string text;
    std::array<char, 4096> chunk{};
    ssize_t got = 0;
    while ((got = ::read(fd, chunk.data(), chunk.size())) > 0) {
      text.append(chunk.data(), static_cast<std::size_t>(got));
    }
    return text;
  }

  Pipe out_;
  Pipe err_;
  pid_t pid_ = -1;
};

TEST(ProgramTest, ServesUntilItIsToldToStop) {
  const TemporaryFolder folder;
  for (const int number : {SIGTERM, SIGINT}) {
    Program program({"--listen", "127.0.0.1:0", "--control", "127.0.0.1:0", "--state",
                     folder.path() + "/state", "--ca", folder.path() + "/ca.pem", "--host",
                     "localhost"});
    std::istringstream line(program.ReadLine());
    std::string word;
    std::string port;
    std::string control_port;
    line >> word >> port >> control_port;
    EXPECT_EQ(word, "ready");
    HttpClient client(folder.Read("ca.pem"));
    EXPECT_EQ(client.Send({.url = "https://localhost:" + port + "/"}).status, 404);
    EXPECT_EQ(client.Send({.url = "http://127.0.0.1:" + control_port + "/v1/accounts"}).body, "[]");
    program.Signal(number);
    EXPECT_EQ(program.Wait(), 0);
    EXPECT_EQ(program.ReadErr(), "");
  }
}

TEST(ProgramTest, ShowsItsUsage) {
  Program program({"--help"});
  EXPECT_THAT(program.ReadOut(), StartsWith("Usage: zomi-devcloud"));
  EXPECT_EQ(program.Wait(), 0);
}

class WrongUsageTest : public testing::TestWithParam<std::vector<std::string>> {};

TEST_P(WrongUsageTest, IsToldInOneLine) {
  Program program(GetParam());
  const std::string text = program.ReadErr();
  EXPECT_THAT(text, StartsWith("zomi-devcloud: "));
  EXPECT_EQ(text.find('\n'), text.size() - 1) << text;
  EXPECT_EQ(program.Wait(), 2);
}

INSTANTIATE_TEST_SUITE_P(Arguments, WrongUsageTest,
                         testing::Values(std::vector<std::string>{"--listen", "nowhere"},
                                         std::vector<std::string>{"--listen", "127.0.0.1:99999"},
                                         std::vector<std::string>{"--control", "127.0.0.1:"},
                                         std::vector<std::string>{"--control"},
                                         std::vector<std::string>{"--what"},
                                         std::vector<std::string>{"argument"}));

class FailureTest : public testing::TestWithParam<std::vector<std::string>> {};

TEST_P(FailureTest, IsToldInOneLine) {
  std::vector<std::string> arguments{"--listen", "127.0.0.1:0", "--control", "127.0.0.1:0"};
  arguments.insert(arguments.end(), GetParam().begin(), GetParam().end());
  Program program(arguments);
  const std::string text = program.ReadErr();
  EXPECT_THAT(text, StartsWith("zomi-devcloud: "));
  EXPECT_EQ(text.find('\n'), text.size() - 1) << text;
  EXPECT_EQ(program.Wait(), 1);
}

INSTANTIATE_TEST_SUITE_P(Arguments, FailureTest,
                         testing::Values(std::vector<std::string>{"--listen", "192.0.2.1:0"},
                                         std::vector<std::string>{"--listen", "host.invalid:0"},
                                         std::vector<std::string>{"--control", "0.0.0.0:0"},
                                         std::vector<std::string>{"--state", "/no/such/folder"},
                                         std::vector<std::string>{"--ca", "/no/such/folder/ca"}));

}  // namespace
}  // namespace devcloud_test
