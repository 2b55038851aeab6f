#include "base/confinement.h"

#include <fcntl.h>
#include <linux/landlock.h>
#include <seccomp.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <memory>

#include "base/channel.h"
#include "base/message.h"
#include "base/unique_fd.h"

namespace base {
namespace {

constexpr rlim_t kMemory = rlim_t{512} * 1024 * 1024;
constexpr rlim_t kDescriptors = 64;

#ifdef __SANITIZE_ADDRESS__
constexpr bool kHasShadowMemory = true;  // terabytes of addresses
#else
constexpr bool kHasShadowMemory = false;
#endif

// What name resolution and TLS read. The folder of the resolver holds what /etc/resolv.conf leads
// to.
constexpr std::array kReadable = {
    "/etc/hosts",           "/etc/resolv.conf",    "/etc/nsswitch.conf",
    "/etc/gai.conf",        "/etc/host.conf",      "/etc/services",
    "/etc/protocols",       "/etc/localtime",      "/etc/ssl/certs",
    "/etc/ssl/openssl.cnf", "/usr/share/zoneinfo", "/usr/share/ca-certificates",
    "/run/systemd/resolve", "/dev/null",           "/dev/urandom",
};

ConfinementFailure Failed(ConfinementStep step) { return {step, errno}; }

ConfinementFailure FollowParent() {
  if (prctl(PR_SET_PDEATHSIG, SIGKILL) != 0 || prctl(PR_SET_DUMPABLE, 0) != 0) {
    return Failed(ConfinementStep::kParent);
  }
  return {};
}

bool Limit(__rlimit_resource_t resource, rlim_t value) {
  const rlimit limit = {value, value};
  return setrlimit(resource, &limit) == 0;
}

ConfinementFailure SetLimits() {
  const bool set = Limit(RLIMIT_CORE, 0) && Limit(RLIMIT_FSIZE, 0) &&
                   Limit(RLIMIT_NOFILE, kDescriptors) &&
                   (kHasShadowMemory || Limit(RLIMIT_AS, kMemory));
  return set ? ConfinementFailure() : Failed(ConfinementStep::kLimits);
}

// Whether the kernel has no such call, or was told at its start to do without.
bool IsMissing(int reason) { return reason == ENOSYS || reason == EOPNOTSUPP; }

bool AllowReading(int ruleset, const char* path) {
  const UniqueFd file(open(path, O_PATH | O_CLOEXEC));
  if (!file) {
    return errno == ENOENT || errno == ENOTDIR || errno == EACCES;  // it is not there to read
  }
  landlock_path_beneath_attr rule = {};
  rule.parent_fd = file.get();
  rule.allowed_access = LANDLOCK_ACCESS_FS_READ_FILE;
  return syscall(SYS_landlock_add_rule, ruleset, LANDLOCK_RULE_PATH_BENEATH, &rule, 0) == 0;
}

// Every right over files that the first version of Landlock knows. Whatever later versions know
// needs a file that is open for writing, or a system call that is not on the list below.
constexpr std::uint64_t kAllRights = (std::uint64_t{LANDLOCK_ACCESS_FS_MAKE_SYM} << 1) - 1;

ConfinementFailure RestrictFiles() {
  landlock_ruleset_attr handled = {};
  handled.handled_access_fs = kAllRights;
  const UniqueFd ruleset(
      static_cast<int>(syscall(SYS_landlock_create_ruleset, &handled, sizeof handled, 0)));
  if (!ruleset) return IsMissing(errno) ? ConfinementFailure() : Failed(ConfinementStep::kFiles);
  bool done = true;
  for (const char* path : kReadable) done = done && AllowReading(ruleset.get(), path);
  done = done && syscall(SYS_landlock_restrict_self, ruleset.get(), 0) == 0;
  return done ? ConfinementFailure() : Failed(ConfinementStep::kFiles);
}

// Calls that are allowed with any arguments. None of them makes, changes or reaches anything that
// this process does not hold already.
constexpr std::array kAllowed = {
    // memory
    SCMP_SYS(brk), SCMP_SYS(madvise), SCMP_SYS(mremap), SCMP_SYS(munmap),
    // descriptors
    SCMP_SYS(close), SCMP_SYS(eventfd2), SCMP_SYS(fstat), SCMP_SYS(lseek), SCMP_SYS(newfstatat),
    SCMP_SYS(pipe2), SCMP_SYS(poll), SCMP_SYS(ppoll), SCMP_SYS(pread64), SCMP_SYS(pselect6),
    SCMP_SYS(read), SCMP_SYS(readv), SCMP_SYS(select), SCMP_SYS(statx), SCMP_SYS(write),
    SCMP_SYS(writev),
    // the network
    SCMP_SYS(connect), SCMP_SYS(getpeername), SCMP_SYS(getsockname), SCMP_SYS(getsockopt),
    SCMP_SYS(recvfrom), SCMP_SYS(recvmmsg), SCMP_SYS(recvmsg), SCMP_SYS(sendmmsg),
    SCMP_SYS(sendmsg), SCMP_SYS(sendto), SCMP_SYS(setsockopt), SCMP_SYS(shutdown),
    // threads, signals and the end
    SCMP_SYS(exit), SCMP_SYS(exit_group), SCMP_SYS(futex), SCMP_SYS(gettid),
    SCMP_SYS(restart_syscall), SCMP_SYS(rseq), SCMP_SYS(rt_sigaction), SCMP_SYS(rt_sigprocmask),
    SCMP_SYS(rt_sigreturn), SCMP_SYS(sched_getaffinity), SCMP_SYS(sched_yield),
    SCMP_SYS(set_robust_list), SCMP_SYS(sigaltstack),
    // time, chance and names
    SCMP_SYS(clock_getres), SCMP_SYS(clock_gettime), SCMP_SYS(clock_nanosleep), SCMP_SYS(getcwd),
    SCMP_SYS(getegid), SCMP_SYS(geteuid), SCMP_SYS(getgid), SCMP_SYS(getpid), SCMP_SYS(getrandom),
    SCMP_SYS(gettimeofday), SCMP_SYS(getuid), SCMP_SYS(nanosleep), SCMP_SYS(sysinfo),
    SCMP_SYS(time), SCMP_SYS(uname)};

constexpr std::array<std::uint64_t, 2> kNetworks = {AF_INET, AF_INET6};
constexpr std::array<std::uint64_t, 2> kKinds = {SOCK_STREAM, SOCK_DGRAM};
constexpr std::uint64_t kKindBits = 0xf;  // the others of a socket's type are flags

// A call that is allowed where the argument at `index` has, of the bits in `mask`, just `value`.
struct Condition {
  int call;
  unsigned int index;
  std::uint64_t mask;
  std::uint64_t value;
};

constexpr std::uint64_t kAllBits = ~std::uint64_t{0};
constexpr std::uint64_t kWritingFlags = O_ACCMODE | O_CREAT | O_TRUNC | O_APPEND |
                                        (static_cast<unsigned int>(O_TMPFILE) & ~O_DIRECTORY);
constexpr std::uint64_t kThreadFlag = 0x00010000;  // CLONE_THREAD

constexpr std::array kConditions = {
    Condition{SCMP_SYS(open), 1, kWritingFlags, O_RDONLY},
    Condition{SCMP_SYS(openat), 2, kWritingFlags, O_RDONLY},
    // nothing that was written can be run
    Condition{SCMP_SYS(mmap), 2, PROT_EXEC, 0},
    Condition{SCMP_SYS(mprotect), 2, PROT_EXEC, 0},
    Condition{SCMP_SYS(clone), 0, kThreadFlag, kThreadFlag},
    // A stream of a pair is connected and cannot be sent elsewhere; a datagram socket could.
    Condition{SCMP_SYS(socketpair), 1, kKindBits, SOCK_STREAM},
    Condition{SCMP_SYS(fcntl), 1, kAllBits, F_GETFD},
    Condition{SCMP_SYS(fcntl), 1, kAllBits, F_SETFD},
    Condition{SCMP_SYS(fcntl), 1, kAllBits, F_GETFL},
    Condition{SCMP_SYS(fcntl), 1, kAllBits, F_SETFL},
    Condition{SCMP_SYS(fcntl), 1, kAllBits, F_DUPFD_CLOEXEC},
    Condition{SCMP_SYS(ioctl), 1, kAllBits, 0x5421},  // FIONBIO
    Condition{SCMP_SYS(ioctl), 1, kAllBits, 0x541b},  // FIONREAD
    // the limits may be read
    Condition{SCMP_SYS(prlimit64), 2, kAllBits, 0},
    Condition{SCMP_SYS(prctl), 0, kAllBits, PR_SET_NAME},
};

struct FilterFree {
  void operator()(void* filter) const { seccomp_release(filter); }
};
using Filter = std::unique_ptr<void, FilterFree>;

// The C library takes another way where a call is missing, and none where it is forbidden.
constexpr std::array kSaidToBeMissing = {SCMP_SYS(clone3), SCMP_SYS(close_range),
                                         SCMP_SYS(faccessat2), SCMP_SYS(openat2)};

int FillFilter(scmp_filter_ctx filter) {
  int result = 0;
  const auto add = [&](std::uint32_t action, int call, unsigned int count,
                       const scmp_arg_cmp* arguments) {
    result = result == 0 ? seccomp_rule_add_array(filter, action, call, count, arguments) : result;
  };
  for (const int call : kAllowed) add(SCMP_ACT_ALLOW, call, 0, nullptr);
  for (const Condition& condition : kConditions) {
    const scmp_arg_cmp argument = {condition.index, SCMP_CMP_MASKED_EQ, condition.mask,
                                   condition.value};
    add(SCMP_ACT_ALLOW, condition.call, 1, &argument);
  }
  for (const std::uint64_t network : kNetworks) {
    for (const std::uint64_t kind : kKinds) {
      const scmp_arg_cmp arguments[] = {{0, SCMP_CMP_EQ, network, 0},
                                        {1, SCMP_CMP_MASKED_EQ, kKindBits, kind}};
      add(SCMP_ACT_ALLOW, SCMP_SYS(socket), 2, arguments);
    }
  }
  const scmp_arg_cmp itself = {0, SCMP_CMP_EQ, static_cast<scmp_datum_t>(getpid()), 0};
  add(SCMP_ACT_ALLOW, SCMP_SYS(tgkill), 1, &itself);  // abort()
  for (const int call : kSaidToBeMissing) add(SCMP_ACT_ERRNO(ENOSYS), call, 0, nullptr);
  return result;
}

ConfinementFailure RestrictSystemCalls() {
  const Filter filter(seccomp_init(SCMP_ACT_ERRNO(EPERM)));
  if (!filter) return {ConfinementStep::kSystemCalls, ENOMEM};
  const int filled = FillFilter(filter.get());
  const int result = filled == 0 ? seccomp_load(filter.get()) : filled;
  if (result == 0 || IsMissing(-result)) return {};
  return {ConfinementStep::kSystemCalls, -result};
}

}  // namespace

ConfinementFailure Confine() {
  for (const auto step : {FollowParent, SetLimits, RestrictFiles, RestrictSystemCalls}) {
    if (const ConfinementFailure failure = step()) return failure;
  }
  return {};
}

int ServeConfined(std::size_t longest,
                  const std::function<std::string(const std::string&)>& answer) {
  const ConfinementFailure failure = Confine();
  MessageWriter words;
  words.Number(static_cast<std::int64_t>(failure.step)).Number(failure.reason);
  if (!SendFrame(kChannel, words.Take()) || failure) return EXIT_FAILURE;
  while (const auto question = ReceiveFrame(kChannel, longest)) {
    if (!SendFrame(kChannel, answer(*question))) return EXIT_FAILURE;
  }
  return EXIT_SUCCESS;
}

}  // namespace base
