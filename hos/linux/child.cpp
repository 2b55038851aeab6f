#include "hos/linux/child.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include <algorithm>
#include <cerrno>

#include "hos/linux/error.h"

namespace hos_linux {
namespace {

constexpr char kNull[] = "/dev/null";
constexpr int kFirstOtherDescriptor = 3;
constexpr int kSignalBase = 128;

char path_variable[] = "PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin";
char language_variable[] = "LANG=C.UTF-8";
char* const kEnvironment[] = {path_variable, language_variable, nullptr};

// The two descriptions that posix_spawn works from.
class SpawnPlan {
 public:
  SpawnPlan() {
    posix_spawn_file_actions_init(&actions_);
    posix_spawnattr_init(&attributes_);
  }
  SpawnPlan(const SpawnPlan&) = delete;
  SpawnPlan& operator=(const SpawnPlan&) = delete;
  ~SpawnPlan() {
    posix_spawnattr_destroy(&attributes_);
    posix_spawn_file_actions_destroy(&actions_);
  }

  // Each returns an error number, 0 for none.
  int NullStreams() {
    for (int fd = 0; fd < kFirstOtherDescriptor; ++fd) {
      const int flags = fd == STDIN_FILENO ? O_RDONLY : O_WRONLY;
      const int error = posix_spawn_file_actions_addopen(&actions_, fd, kNull, flags, 0);
      if (error != 0) return error;
    }
    return posix_spawn_file_actions_addclosefrom_np(&actions_, kFirstOtherDescriptor);
  }

  int OwnGroupAndDefaultSignals() {
    sigset_t all;
    sigset_t none;
    sigfillset(&all);
    sigemptyset(&none);
    posix_spawnattr_setsigdefault(&attributes_, &all);
    posix_spawnattr_setsigmask(&attributes_, &none);
    posix_spawnattr_setpgroup(&attributes_, 0);
    return posix_spawnattr_setflags(
        &attributes_, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);
  }

  int Spawn(const std::string& path, char* const* argv, pid_t* pid) {
    return posix_spawn(pid, path.c_str(), &actions_, &attributes_, argv, kEnvironment);
  }

 private:
  posix_spawn_file_actions_t actions_;
  posix_spawnattr_t attributes_;
};

std::vector<char*> PointersTo(std::vector<std::string>& words) {
  std::vector<char*> pointers;
  pointers.reserve(words.size() + 1);
  for (std::string& word : words) pointers.push_back(word.data());
  pointers.push_back(nullptr);
  return pointers;
}

int ExitStatus(int status) {
  return WIFEXITED(status) ? WEXITSTATUS(status) : kSignalBase + WTERMSIG(status);
}

// Waits until `fd` is readable; false when the limit passes first.
bool WaitReadable(int fd, std::chrono::milliseconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  pollfd watched = {fd, POLLIN, 0};
  for (auto left = limit;;) {
    const int ready = poll(&watched, 1, static_cast<int>(std::max<long>(left.count(), 0)));
    if (ready > 0) return true;
    if (ready == 0) return False(kTimedOut);
    if (errno != EINTR) return FalseFromErrno();
    left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline -
                                                                 std::chrono::steady_clock::now());
  }
}

}  // namespace

Child::ReapableChildren::ReapableChildren() {
  struct sigaction standard = {};
  standard.sa_handler = SIG_DFL;
  sigaction(SIGCHLD, &standard, &old_);
}

Child::ReapableChildren::~ReapableChildren() { sigaction(SIGCHLD, &old_, nullptr); }

Child::~Child() {
  if (pid_ < 0) return;
  kill(-pid_, SIGKILL);
  while (waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
  }
}

bool Child::Start(const std::string& path, const std::vector<std::string>& args) {
  std::vector<std::string> words = {path};
  words.insert(words.end(), args.begin(), args.end());
  SpawnPlan plan;
  int error = plan.NullStreams();
  if (error == 0) error = plan.OwnGroupAndDefaultSignals();
  pid_t pid = -1;
  if (error == 0) error = plan.Spawn(path, PointersTo(words).data(), &pid);
  if (error != 0) return False(error);
  pid_ = pid;
  return true;
}

std::optional<int> Child::Wait() {
  int status = 0;
  while (waitpid(pid_, &status, 0) < 0) {
    if (errno == EINTR) continue;
    SetErrorFromErrno();
    pid_ = -1;
    return std::nullopt;
  }
  pid_ = -1;
  return ExitStatus(status);
}

std::optional<int> Child::WaitFor(std::chrono::milliseconds limit) {
  const base::UniqueFd process(static_cast<int>(syscall(SYS_pidfd_open, pid_, 0)));
  if (!process) {
    SetErrorFromErrno();
    return std::nullopt;
  }
  if (!WaitReadable(process.get(), limit)) return std::nullopt;
  return Wait();
}

}  // namespace hos_linux
