#include "base/confined_program.h"

#include <fcntl.h>
#include <linux/capability.h>
#include <linux/securebits.h>
#include <poll.h>
#include <pwd.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "base/channel.h"
#include "base/confinement.h"
#include "base/message.h"
#include "base/worker_account.h"

namespace base {
namespace {

// What confines the program may hang when there is no memory for it.
constexpr std::chrono::seconds kStartLimit{20};

constexpr std::size_t kLongestFailure = 64;
constexpr uid_t kUnchanged = static_cast<uid_t>(-1);

#ifdef __SANITIZE_ADDRESS__
constexpr int kLastNullStream = STDOUT_FILENO;  // the sanitizer's report is for whoever watches
#else
constexpr int kLastNullStream = STDERR_FILENO;
#endif

struct Ids {
  uid_t user;
  gid_t group;
};

// Everything that the child needs to know, found before it exists: until it becomes the program it
// may only make system calls.
struct Plan {
  const char* path;
  int channel;
  bool privileged;
  Ids ids;
};

// From the file itself: name services may ask servers.
std::optional<Ids> FindAccount(std::string_view name) {
  const std::unique_ptr<FILE, int (*)(FILE*)> accounts(std::fopen("/etc/passwd", "re"),
                                                       std::fclose);
  while (const passwd* account = accounts ? fgetpwent(accounts.get()) : nullptr) {
    if (account->pw_name == name && account->pw_uid != 0 && account->pw_gid != 0) {
      return Ids{account->pw_uid, account->pw_gid};
    }
  }
  return std::nullopt;
}

Ids UnprivilegedIds() {
  constexpr Ids kNobody = {65534, 65534};
  const auto own = FindAccount(kWorkerAccount);
  return own ? *own : FindAccount("nobody").value_or(kNobody);
}

bool MayBecomeRoot() {
  uid_t real = 0;
  uid_t effective = 0;
  uid_t saved = 0;
  return getresuid(&real, &effective, &saved) != 0 || real == 0 || effective == 0 || saved == 0;
}

// --- In the child: system calls alone, by themselves. ---

// The C library would have all threads of the process change along; the child has but this one.
bool SetUser(uid_t real, uid_t effective, uid_t saved) {
  return syscall(SYS_setresuid, real, effective, saved) == 0;
}

bool SetGroup(gid_t group) { return syscall(SYS_setresgid, group, group, group) == 0; }

// A namespace with root as its only user: there is nobody else to become, so root's power goes.
bool DisarmRoot() {
  constexpr unsigned long kForGood = SECBIT_NOROOT | SECBIT_NOROOT_LOCKED |
                                     SECBIT_KEEP_CAPS_LOCKED | SECBIT_NO_SETUID_FIXUP_LOCKED;
  return prctl(PR_SET_SECUREBITS, kForGood, 0, 0, 0) == 0;
}

ConfinementStep BecomeOrdinary(const Ids& ids) {
  if (geteuid() != 0 && !SetUser(kUnchanged, 0, kUnchanged)) return ConfinementStep::kUser;
  if (!SetGroup(ids.group)) {
    return errno == EINVAL && DisarmRoot() ? ConfinementStep::kNone : ConfinementStep::kUser;
  }
  if (syscall(SYS_setgroups, 0, nullptr) != 0) return ConfinementStep::kGroups;
  return SetUser(ids.user, ids.user, ids.user) ? ConfinementStep::kNone : ConfinementStep::kUser;
}

ConfinementStep KeepEffectiveIds() {
  const uid_t user = geteuid();
  return SetGroup(getegid()) && SetUser(user, user, user) ? ConfinementStep::kNone
                                                          : ConfinementStep::kUser;
}

bool DropCapabilities() {
  __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
  const __user_cap_data_struct none[_LINUX_CAPABILITY_U32S_3] = {};
  return syscall(SYS_capset, &header, none) == 0;
}

bool StayOpen(int fd) { return fcntl(fd, F_SETFD, 0) == 0; }

void CloseOthers() {
  constexpr int kMany = 4096;
  if (syscall(SYS_close_range, kChannel + 1, ~0U, 0) == 0) return;
  for (int fd = kChannel + 1; fd < kMany; ++fd) (void)close(fd);
}

// 0 to 2 lead nowhere, the channel is where the program looks for it, and nothing else is open.
bool TakeDescriptors(int channel) {
  if (dup2(channel, kChannel) < 0 || !StayOpen(kChannel)) return false;
  const int null = open("/dev/null", O_RDWR);
  if (null < 0) return false;
  for (int fd = STDIN_FILENO; fd <= kLastNullStream; ++fd) {
    if (dup2(null, fd) < 0) return false;
  }
  CloseOthers();
  return true;
}

void DefaultSignals() {
  struct sigaction standard = {};
  standard.sa_handler = SIG_DFL;
  for (int signal = 1; signal < NSIG; ++signal) (void)sigaction(signal, &standard, nullptr);
  sigset_t none;
  sigemptyset(&none);
  (void)sigprocmask(SIG_SETMASK, &none, nullptr);
}

ConfinementStep Become(const Plan& plan) {
  static char path_variable[] = "PATH=/usr/bin:/bin";
  static char language_variable[] = "LANG=C.UTF-8";
  char* const environment[] = {path_variable, language_variable, nullptr};
  DefaultSignals();
  (void)setsid();
  const ConfinementStep step = plan.privileged ? BecomeOrdinary(plan.ids) : KeepEffectiveIds();
  if (step != ConfinementStep::kNone) return step;
  if (!DropCapabilities()) return ConfinementStep::kCapabilities;
  if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) return ConfinementStep::kPrivileges;
  if (chdir("/") != 0 || !TakeDescriptors(plan.channel)) return ConfinementStep::kDescriptors;
  char* const arguments[] = {const_cast<char*>(plan.path), nullptr};
  execve(plan.path, arguments, environment);
  return ConfinementStep::kProgram;
}

// As MessageWriter and SendFrame do, which a child must not call.
[[noreturn]] void Report(const Plan& plan, ConfinementFailure failure) {
  struct {
    std::uint32_t length;
    std::int64_t numbers[2];
  } __attribute__((packed))
  const frame = {sizeof frame.numbers, {static_cast<std::int64_t>(failure.step), failure.reason}};
  const int channel = failure.step == ConfinementStep::kProgram ? kChannel : plan.channel;
  (void)send(channel, &frame, sizeof frame, MSG_NOSIGNAL);
  _exit(EXIT_FAILURE);
}

[[noreturn]] void RunChild(const Plan& plan) {
  const ConfinementStep step = Become(plan);
  Report(plan, {step, errno});
}

// With the effective ids of a service account this process may not signal a program of another
// user, and would wait for it for ever: it takes root's for the moment of the signal. Whether it is
// dead.
bool Kill(pid_t pid) {
  if (kill(pid, SIGKILL) == 0) return true;
  const uid_t user = geteuid();
  if (!SetUser(kUnchanged, 0, kUnchanged)) return false;
  const bool killed = kill(pid, SIGKILL) == 0;
  if (!SetUser(kUnchanged, user, kUnchanged)) {
    std::abort();  // rather than go on as root
  }
  return killed;
}

// What failed, as in "failed to TEXT".
const char* TextOf(ConfinementStep step) {
  switch (step) {
    case ConfinementStep::kNone: break;
    case ConfinementStep::kUser: return "become another user";
    case ConfinementStep::kGroups: return "leave its groups";
    case ConfinementStep::kCapabilities: return "drop its capabilities";
    case ConfinementStep::kPrivileges: return "refuse new privileges";
    case ConfinementStep::kDescriptors: return "close its descriptors";
    case ConfinementStep::kProgram: return "start";
    case ConfinementStep::kParent: return "follow its parent";
    case ConfinementStep::kLimits: return "limit itself";
    case ConfinementStep::kFiles: return "give up its files";
    case ConfinementStep::kSystemCalls: return "give up its system calls";
  }
  return "do nothing";
}

}  // namespace

std::string ProgramPath(const std::string& installed) {
  struct stat status {};
  if (stat(installed.c_str(), &status) == 0 || (errno != ENOENT && errno != ENOTDIR)) {
    return installed;
  }
  std::array<char, PATH_MAX> self{};
  const ssize_t length = readlink("/proc/self/exe", self.data(), self.size());
  const std::string program(self.data(), static_cast<std::size_t>(std::max<ssize_t>(length, 0)));
  return program.substr(0, program.rfind('/') + 1) + installed.substr(installed.rfind('/') + 1);
}

ConfinedProgram::~ConfinedProgram() { Stop(); }

// The child of another process is not touched.
void ConfinedProgram::Stop() {
  channel_ = UniqueFd();
  process_ = UniqueFd();
  if (pid_ > 0 && owner_ == getpid()) {
    const int options = Kill(pid_) ? 0 : WNOHANG;
    while (waitpid(pid_, nullptr, options) < 0 && errno == EINTR) {
    }
  }
  pid_ = -1;
}

// A child of the process that started the program has no program.
bool ConfinedProgram::Runs() const {
  pollfd watched = {process_.get(), POLLIN, 0};
  return channel_ && owner_ == getpid() && poll(&watched, 1, 0) == 0;
}

bool ConfinedProgram::HasSpoken() const {
  char byte = 0;
  return recv(channel_.get(), &byte, 1, MSG_PEEK | MSG_DONTWAIT) > 0;
}

bool ConfinedProgram::Start(std::string& why) {
  std::array<int, 2> ends{};
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) {
    why = std::string("no socket pair: ") + std::strerror(errno);
    return false;
  }
  channel_ = UniqueFd(ends[0]);
  const UniqueFd other(ends[1]);
  const std::string path = ProgramPath(installed_);
  const bool privileged = MayBecomeRoot();
  const Plan plan = {path.c_str(), other.get(), privileged, privileged ? UnprivilegedIds() : Ids{}};
  pid_ = fork();
  if (pid_ == 0) RunChild(plan);
  owner_ = getpid();
  if (pid_ < 0) {
    why = std::string("no process: ") + std::strerror(errno);
    return false;
  }
  process_ = UniqueFd(static_cast<int>(syscall(SYS_pidfd_open, pid_, 0)));
  return true;
}

// The program's first words say what of its confinement failed.
bool ConfinedProgram::IsConfined(std::chrono::steady_clock::time_point deadline, std::string& why) {
  const auto words = ReceiveFrame(channel_.get(), kLongestFailure, deadline, process_.get());
  if (!words) {
    why = std::string("it did not start: ") + std::strerror(errno);
    return false;
  }
  MessageReader reader(*words);
  const auto step = static_cast<ConfinementStep>(
      reader.Number(0, static_cast<std::int64_t>(kLastConfinementStep)));
  const auto reason = static_cast<int>(reader.Number(0, INT_MAX));
  if (!reader.IsWhole()) {
    why = "it began with other words";
    return false;
  }
  if (step != ConfinementStep::kNone) {
    why = std::string("failed to ") + TextOf(step) + ": " + std::strerror(reason);
  }
  return step == ConfinementStep::kNone;
}

std::optional<std::string> ConfinedProgram::Ask(std::string_view question, std::size_t longest,
                                                std::chrono::milliseconds limit, std::string& why) {
  const auto now = std::chrono::steady_clock::now();
  const auto deadline = now + limit;
  if (!Runs()) {
    Stop();
    if (!Start(why) || !IsConfined(std::min(now + kStartLimit, deadline), why)) {
      Stop();
      return std::nullopt;
    }
  }
  if (HasSpoken()) {
    why = "it spoke without being asked";
    Stop();
    return std::nullopt;
  }
  std::optional<std::string> answer;
  if (SendFrame(channel_.get(), question, deadline)) {
    answer = ReceiveFrame(channel_.get(), longest, deadline, process_.get());
  }
  if (!answer) {
    why = std::string("no answer: ") + std::strerror(errno);
    Stop();
  }
  return answer;
}

}  // namespace base
