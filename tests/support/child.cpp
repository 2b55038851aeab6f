#include "tests/support/child.h"

#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <utility>

#include "base/atomic_replace.h"
#include "base/unique_fd.h"
#include "tests/support/interpose.h"

namespace {

std::string ReadAll(int fd) {
  std::string text;
  std::array<char, 4096> block{};
  ssize_t count = 0;
  while ((count = read(fd, block.data(), block.size())) != 0) {
    if (count > 0) {
      text.append(block.data(), static_cast<std::size_t>(count));
    } else if (errno != EINTR) {
      throw std::runtime_error("cannot read from the child");
    }
  }
  return text;
}

[[noreturn]] void BeChild(const std::function<std::string()>& flow, int out) {
  int status = EXIT_SUCCESS;
  std::string result;
  try {
    result = flow();
  } catch (const std::exception& error) {
    result = error.what();
    status = EXIT_FAILURE;
  }
  _exit(base::WriteAll(out, result) ? status : EXIT_FAILURE);
}

void ExpectEnded(pid_t child, const std::string& said) {
  int status = 0;
  while (waitpid(child, &status, 0) < 0) {
    if (errno != EINTR) throw std::runtime_error("cannot wait for the child");
  }
  if (!WIFEXITED(status) || WEXITSTATUS(status) != EXIT_SUCCESS) {
    throw std::runtime_error("the child failed, status " + std::to_string(status) + ": " + said);
  }
}

// 'R' running, 'S' waiting for an event ...; '?' for a thread that has just ended.
char StateOf(const std::filesystem::path& task) {
  std::ifstream file(task / "stat");
  std::string text;
  std::getline(file, text);
  const std::size_t end_of_name = text.rfind(')');
  return end_of_name == std::string::npos ? '?' : text.at(end_of_name + 2);
}

bool OthersWait() {
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
    if (task.path().filename() != std::to_string(gettid()) && StateOf(task.path()) != 'S') {
      return false;
    }
  }
  return true;
}

}  // namespace

void WaitUntilOtherThreadsWait() {
  while (!OthersWait()) sched_yield();
}

std::string RunInChild(const std::function<std::string()>& flow) {
  std::array<int, 2> ends{};
  if (pipe(ends.data()) != 0) throw std::runtime_error("no pipe");
  const base::UniqueFd out(ends[0]);
  base::UniqueFd in(ends[1]);
  WaitUntilOtherThreadsWait();
  const pid_t child = fork();
  if (child < 0) throw std::runtime_error("no child");
  if (child == 0) BeChild(flow, in.get());
  in = base::UniqueFd();
  std::string text = ReadAll(out.get());
  ExpectEnded(child, text);
  return text;
}

Ids CurrentIds() {
  Ids ids;
  if (getresuid(&ids.real_user, &ids.effective_user, &ids.saved_user) != 0 ||
      getresgid(&ids.real_group, &ids.effective_group, &ids.saved_group) != 0) {
    throw std::runtime_error("cannot read the ids");
  }
  return ids;
}

void BecomeIds(const Ids& ids) {
  if (interpose::RealSetresgid(ids.real_group, ids.effective_group, ids.saved_group) != 0 ||
      interpose::RealSetresuid(ids.real_user, ids.effective_user, ids.saved_user) != 0) {
    throw std::runtime_error("cannot change the ids");
  }
}
