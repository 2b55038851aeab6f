#include "lab/process.h"

#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

extern "C" {  // which glibc's header does not say itself before 2.37
#include <sys/pidfd.h>
}

#include <array>
#include <cerrno>
#include <csignal>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "base/atomic_replace.h"

namespace lab {
namespace {

constexpr std::size_t kMostOutput = std::size_t{64} << 20U;
constexpr std::chrono::seconds kTimeToTerminate{5};

[[noreturn]] void Throw(int error, const std::string& what) {
  throw std::system_error(error, std::generic_category(), what);
}

[[noreturn]] void ThrowErrno(const std::string& what) { Throw(errno, what); }

struct Pipe {
  base::UniqueFd read_end;
  base::UniqueFd write_end;
};

Pipe MakePipe() {
  std::array<int, 2> ends{};
  if (pipe2(ends.data(), O_CLOEXEC) != 0) ThrowErrno("pipe");
  return {base::UniqueFd(ends[0]), base::UniqueFd(ends[1])};
}

Pipe MakeStdinSocket() {
  std::array<int, 2> ends{};
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) {
    ThrowErrno("socketpair");
  }
  return {base::UniqueFd(ends[0]), base::UniqueFd(ends[1])};
}

// A file in memory: a program that does not read it all cannot make the writer wait.
base::UniqueFd FileWith(std::string_view text) {
  base::UniqueFd file(memfd_create("stdin", MFD_CLOEXEC));
  if (file.get() < 0) ThrowErrno("memfd_create");
  if (!base::WriteAll(file.get(), text) || lseek(file.get(), 0, SEEK_SET) != 0) {
    ThrowErrno("standard input");
  }
  return file;
}

std::vector<char*> Pointers(const std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  pointers.reserve(texts.size() + 1);
  for (const std::string& text : texts) pointers.push_back(const_cast<char*>(text.c_str()));
  pointers.push_back(nullptr);
  return pointers;
}

// All that the new process needs between fork and exec, where memory must not be allocated.
struct Launch {
  char* const* argv;
  char* const* environment;
  const ProcessOptions* options;
  int in, out, err;
  int report;  // receives errno when there is no program to become
};

bool TakeIdentity(const ProcessOptions& options) {
  if ((options.uid || options.gid) && setgroups(0, nullptr) != 0) return false;
  if (options.gid && setresgid(*options.gid, *options.gid, *options.gid) != 0) return false;
  return !options.uid || setresuid(*options.uid, *options.uid, *options.uid) == 0;
}

bool ResetSignals() {
  sigset_t none;
  sigemptyset(&none);
  return std::signal(SIGPIPE, SIG_DFL) != SIG_ERR && sigprocmask(SIG_SETMASK, &none, nullptr) == 0;
}

bool Prepare(const Launch& launch) {
  const std::string& folder = launch.options->working_folder;
  return setpgid(0, 0) == 0 && dup2(launch.in, STDIN_FILENO) >= 0 &&
         dup2(launch.out, STDOUT_FILENO) >= 0 && dup2(launch.err, STDERR_FILENO) >= 0 &&
         (folder.empty() || chdir(folder.c_str()) == 0) && ResetSignals() &&
         TakeIdentity(*launch.options);
}

[[noreturn]] void BecomeProgram(const Launch& launch) {
  if (Prepare(launch)) execvpe(launch.argv[0], launch.argv, launch.environment);
  const int error = errno;
  (void)!write(launch.report, &error, sizeof(error));
  _exit(127);
}

// Returns when the child has become the program; throws what kept it from that.
void AwaitProgram(pid_t pid, const base::UniqueFd& report, const std::string& name) {
  int error = 0;
  ssize_t size = 0;
  do {
    size = read(report.get(), &error, sizeof(error));
  } while (size < 0 && errno == EINTR);
  if (size == 0) return;
  waitpid(pid, nullptr, 0);
  Throw(error, "cannot start " + name);
}

base::UniqueFd OpenPidfd(pid_t pid) {
  base::UniqueFd pidfd(pidfd_open(pid, 0));
  if (pidfd.get() >= 0) return pidfd;
  const int error = errno;
  kill(pid, SIGKILL);
  waitpid(pid, nullptr, 0);
  Throw(error, "pidfd_open");
}

void SetNonBlocking(const base::UniqueFd& fd) {
  if (fcntl(fd.get(), F_SETFL, O_NONBLOCK) != 0) ThrowErrno("fcntl");
}

}  // namespace

ProcessResult RunProcess(const std::vector<std::string>& argv, const ProcessOptions& options) {
  BackgroundProcess process(argv, options, BackgroundProcess::Stdin::kTextThenEnd);
  return process.Wait();
}

BackgroundProcess::BackgroundProcess(const std::vector<std::string>& argv,
                                     const ProcessOptions& options)
    : BackgroundProcess(argv, options, Stdin::kOpen) {}

BackgroundProcess::BackgroundProcess(const std::vector<std::string>& argv,
                                     const ProcessOptions& options, Stdin stdin_kind)
    : time_limit_(options.time_limit), owner_(getpid()) {
  if (argv.empty()) throw std::invalid_argument("no program to run");
  if (stdin_kind == Stdin::kTextThenEnd) {
    Start(argv, options, FileWith(options.stdin_text));
    return;
  }
  Pipe ends = MakeStdinSocket();
  stdin_ = std::move(ends.write_end);
  Write(options.stdin_text);
  Start(argv, options, std::move(ends.read_end));
}

BackgroundProcess::~BackgroundProcess() {
  if (getpid() != owner_) {
    thread_.detach();  // it runs in the parent only, whose program this is
    return;
  }
  Terminate();
  thread_.join();
}

void BackgroundProcess::Start(const std::vector<std::string>& argv, const ProcessOptions& options,
                              base::UniqueFd child_stdin) {
  Pipe out = MakePipe();
  Pipe err = MakePipe();
  Pipe report = MakePipe();
  SetNonBlocking(out.read_end);
  SetNonBlocking(err.read_end);
  const std::vector<char*> arguments = Pointers(argv);
  const std::vector<char*> environment =
      Pointers(options.environment ? *options.environment : argv);
  const Launch launch{arguments.data(),
                      options.environment ? environment.data() : environ,
                      &options,
                      child_stdin.get(),
                      out.write_end.get(),
                      err.write_end.get(),
                      report.write_end.get()};
  pid_ = fork();
  if (pid_ < 0) ThrowErrno("fork");
  if (pid_ == 0) BecomeProgram(launch);
  (void)report.write_end.Close();
  AwaitProgram(pid_, report.read_end, argv[0]);
  pidfd_ = OpenPidfd(pid_);
  stdout_ = std::move(out.read_end);
  stderr_ = std::move(err.read_end);
  thread_ = std::thread([this] { ReadToTheEnd(); });
}

// Takes what can be read now; false at the end of the output.
bool BackgroundProcess::ReadSome(const base::UniqueFd& pipe, std::string& output) {
  std::array<char, 16'384> buffer{};
  while (true) {
    const ssize_t size = read(pipe.get(), buffer.data(), buffer.size());
    if (size == 0) return false;
    if (size < 0) return errno == EAGAIN || errno == EINTR;
    const std::lock_guard lock(mutex_);
    if (output.size() < kMostOutput) output.append(buffer.data(), static_cast<std::size_t>(size));
    changed_.notify_all();
  }
}

void BackgroundProcess::ReadToTheEnd() {
  std::array<pollfd, 3> sources{
      {{stdout_.get(), POLLIN, 0}, {stderr_.get(), POLLIN, 0}, {pidfd_.get(), POLLIN, 0}}};
  do {
    if (poll(sources.data(), sources.size(), -1) < 0) continue;
    if (sources[0].fd >= 0 && !ReadSome(stdout_, result_.out)) sources[0].fd = -1;
    if (sources[1].fd >= 0 && !ReadSome(stderr_, result_.err)) sources[1].fd = -1;
  } while ((sources[2].revents & POLLIN) == 0);
  ReadSome(stdout_, result_.out);  // what it wrote just before its end
  ReadSome(stderr_, result_.err);
  Reap();
}

void BackgroundProcess::Reap() {
  const std::lock_guard lock(mutex_);
  int status = 0;
  waitpid(pid_, &status, 0);
  if (WIFEXITED(status)) {
    result_.exit_status = WEXITSTATUS(status);
  } else {
    result_.signal = WTERMSIG(status);
  }
  ended_ = true;
  changed_.notify_all();
}

std::optional<std::string> BackgroundProcess::NextLine(std::string_view prefix) {
  while (true) {
    const std::size_t end = result_.out.find('\n', next_line_);
    if (end == std::string::npos) return std::nullopt;
    std::string line = result_.out.substr(next_line_, end - next_line_);
    next_line_ = end + 1;
    if (line.starts_with(prefix)) return line;
  }
}

std::string BackgroundProcess::WaitForLine(std::string_view prefix,
                                           std::optional<std::chrono::milliseconds> limit) {
  std::unique_lock lock(mutex_);
  std::optional<std::string> line;
  changed_.wait_for(lock, limit.value_or(time_limit_),
                    [&] { return (line = NextLine(prefix)) || ended_; });
  if (line) return *line;
  throw std::runtime_error("no line \"" + std::string(prefix) + "\"" +
                           (ended_ ? " before the program's end" : " in time") +
                           "; standard output:\n" + result_.out + "standard error:\n" +
                           result_.err);
}

void BackgroundProcess::Write(std::string_view text) {
  while (!text.empty()) {
    const ssize_t size = send(stdin_.get(), text.data(), text.size(), MSG_NOSIGNAL);
    if (size < 0 && errno != EINTR) ThrowErrno("standard input");
    if (size > 0) text.remove_prefix(static_cast<std::size_t>(size));
  }
}

void BackgroundProcess::CloseStdin() { (void)stdin_.Close(); }

void BackgroundProcess::Signal(int signal) {
  const std::lock_guard lock(mutex_);  // not reaped meanwhile, so the number is still its own
  if (!ended_) kill(pid_, signal);
}

ProcessResult BackgroundProcess::Wait() { return WaitOrKill(time_limit_); }

ProcessResult BackgroundProcess::Terminate() {
  Signal(SIGTERM);
  return WaitOrKill(kTimeToTerminate);
}

ProcessResult BackgroundProcess::WaitOrKill(std::chrono::milliseconds limit) {
  std::unique_lock lock(mutex_);
  if (!changed_.wait_for(lock, limit, [this] { return ended_; })) {
    result_.timed_out = true;
    kill(-pid_, SIGKILL);
    changed_.wait(lock, [this] { return ended_; });
  }
  return result_;
}

}  // namespace lab
