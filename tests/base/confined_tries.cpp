// A program under the confinement of the real workers. Each question names something to try; the
// answer is what came of it, "done" or an error number.

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/capability.h>
#include <netdb.h>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/random.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <string>
#include <string_view>
#include <thread>

#include "base/confinement.h"

namespace {

// Of the test, in a folder in which everybody may do everything.
constexpr char kVictim[] = "/tmp/open/victim";
constexpr char kVictimFolder[] = "/tmp/open/folder";
constexpr char kNew[] = "/tmp/open/new";

pid_t caller = 0;
int held = -1;  // a file that was open for writing before the confinement

// What Confine would let nobody ask.
void RememberSurroundings() {
  caller = getppid();
  held = static_cast<int>(syscall(SYS_memfd_create, "held", 0));
  (void)std::signal(SIGXFSZ, SIG_IGN);  // so that the write fails instead of ending the program
}

// A child that should not be must not go on as this program.
long Forked(long result) {
  if (result == 0) _exit(0);
  return result;
}

long Clone(unsigned long flags) { return Forked(syscall(SYS_clone, flags, 0, 0, 0, 0)); }

long Map(int protection, int fd, int kind) {
  return syscall(SYS_mmap, 0, 4096, protection, kind, fd, 0);
}

long MakeRunnable(long call) {
  const long page = Map(PROT_READ | PROT_WRITE, -1, MAP_PRIVATE | MAP_ANONYMOUS);
  return syscall(call, page, 4096, PROT_READ | PROT_EXEC, -1);
}

long Execute() {
  char program[] = "/bin/true";
  char* const words[] = {program, nullptr};
  return syscall(SYS_execve, program, words, words + 1);
}

long ExecuteHeld() {
  char* const none[] = {nullptr};
  return syscall(SYS_execveat, held, "", none, none, AT_EMPTY_PATH);
}

long Tell(int signal) { return syscall(SYS_kill, caller, signal); }

long Capabilities() {
  __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
  const __user_cap_data_struct data[_LINUX_CAPABILITY_U32S_3] = {};
  return syscall(SYS_capset, &header, data);
}

long PeekAt(long call) {
  char byte = 0;
  const iovec mine = {&byte, 1};
  const iovec theirs = {&byte, 1};
  return syscall(call, caller, &mine, 1, &theirs, 1, 0);
}

long RaiseLimit(pid_t process) {
  const rlimit64 limit = {128, 128};
  return syscall(SYS_prlimit64, process, RLIMIT_NOFILE, &limit, nullptr);
}

long Socket(int family, int kind) { return syscall(SYS_socket, family, kind, 0); }

long Pair(int kind, int* ends) { return syscall(SYS_socketpair, AF_UNIX, kind, 0, ends); }

long UselessPair(int kind) {
  std::array<int, 2> ends{};
  return Pair(kind, ends.data());
}

sockaddr_in Loopback(int port) {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<in_port_t>(port));
  return address;
}

long Bind() {
  const sockaddr_in address = Loopback(0);
  return syscall(SYS_bind, Socket(AF_INET, SOCK_STREAM), &address, sizeof address);
}

struct Try {
  std::string_view name;
  long (*call)();
};

// System calls that the confinement refuses before it looks at their arguments; some arguments are
// such that the kernel itself would say something else.
constexpr Try kCalls[] = {
#ifdef SYS_fork  // newer machines have only their successors
    {"open for writing", [] { return syscall(SYS_open, kVictim, O_WRONLY); }},
    {"creat", [] { return syscall(SYS_creat, kNew, 0600); }},
    {"rename", [] { return syscall(SYS_rename, kVictim, kNew); }},
    {"unlink", [] { return syscall(SYS_unlink, kVictim); }},
    {"mkdir", [] { return syscall(SYS_mkdir, kNew, 0700); }},
    {"rmdir", [] { return syscall(SYS_rmdir, kVictimFolder); }},
    {"symlink", [] { return syscall(SYS_symlink, kVictim, kNew); }},
    {"link", [] { return syscall(SYS_link, kVictim, kNew); }},
    {"mknod", [] { return syscall(SYS_mknod, kNew, S_IFIFO | 0600, 0); }},
    {"chmod", [] { return syscall(SYS_chmod, kVictim, 0644); }},
    {"chown", [] { return syscall(SYS_chown, kVictim, -1, -1); }},
    {"fork", [] { return Forked(syscall(SYS_fork)); }},
    {"vfork", [] { return Forked(syscall(SYS_vfork)); }},
    {"dup2", [] { return syscall(SYS_dup2, 0, 1); }},
    {"inotify_init", [] { return syscall(SYS_inotify_init); }},
    {"epoll_create", [] { return syscall(SYS_epoll_create, 1); }},
    {"iopl", [] { return syscall(SYS_iopl, 0); }},
    {"ioperm", [] { return syscall(SYS_ioperm, 0, 0, 0); }},
#endif
    // files
    {"openat for both", [] { return syscall(SYS_openat, AT_FDCWD, kVictim, O_RDWR); }},
    {"openat to truncate", [] { return syscall(SYS_openat, AT_FDCWD, kVictim, O_TRUNC); }},
    {"openat to append", [] { return syscall(SYS_openat, AT_FDCWD, kVictim, O_APPEND); }},
    {"openat to create", [] { return syscall(SYS_openat, AT_FDCWD, kNew, O_CREAT, 0600); }},
    {"openat without a name",
     [] { return syscall(SYS_openat, AT_FDCWD, kVictimFolder, O_TMPFILE | O_RDWR, 0600); }},
    {"truncate", [] { return syscall(SYS_truncate, kVictim, 0); }},
    {"ftruncate", [] { return syscall(SYS_ftruncate, held, 0); }},
    {"fallocate", [] { return syscall(SYS_fallocate, held, 0, 0, 1); }},
    {"pwrite64", [] { return syscall(SYS_pwrite64, held, "x", 1, 0); }},
    {"sendfile", [] { return syscall(SYS_sendfile, 1, held, 0, 1); }},
    {"splice", [] { return syscall(SYS_splice, held, 0, 1, 0, 1, 0); }},
    {"copy_file_range", [] { return syscall(SYS_copy_file_range, held, 0, held, 0, 0, 0); }},
    {"renameat2", [] { return syscall(SYS_renameat2, AT_FDCWD, kVictim, AT_FDCWD, kNew, 0); }},
    {"unlinkat", [] { return syscall(SYS_unlinkat, AT_FDCWD, kVictim, 0); }},
    {"mkdirat", [] { return syscall(SYS_mkdirat, AT_FDCWD, kNew, 0700); }},
    {"symlinkat", [] { return syscall(SYS_symlinkat, kVictim, AT_FDCWD, kNew); }},
    {"linkat", [] { return syscall(SYS_linkat, AT_FDCWD, kVictim, AT_FDCWD, kNew, 0); }},
    {"mknodat", [] { return syscall(SYS_mknodat, AT_FDCWD, kNew, S_IFIFO | 0600, 0); }},
    {"fchmod", [] { return syscall(SYS_fchmod, held, 0600); }},
    {"fchmodat", [] { return syscall(SYS_fchmodat, AT_FDCWD, kVictim, 0644); }},
    {"fchown", [] { return syscall(SYS_fchown, held, -1, -1); }},
    {"fchownat", [] { return syscall(SYS_fchownat, AT_FDCWD, kVictim, -1, -1, 0); }},
    {"utimensat", [] { return syscall(SYS_utimensat, AT_FDCWD, kVictim, 0, 0); }},
    {"setxattr", [] { return syscall(SYS_setxattr, kVictim, "user.x", "x", 1, 0); }},
    {"flock", [] { return syscall(SYS_flock, held, 0); }},
    {"fcntl to lock", [] { return syscall(SYS_fcntl, held, F_SETLK, 0); }},
    {"fcntl to be told", [] { return syscall(SYS_fcntl, base::kChannel, F_SETOWN, caller); }},
    {"name_to_handle_at",
     [] { return syscall(SYS_name_to_handle_at, AT_FDCWD, kVictim, 0, 0, 0); }},
    {"open_by_handle_at", [] { return syscall(SYS_open_by_handle_at, AT_FDCWD, 0, 0); }},
    {"inotify_init1", [] { return syscall(SYS_inotify_init1, 0); }},
    {"fanotify_init", [] { return syscall(SYS_fanotify_init, 0, 0); }},
    {"chdir", [] { return syscall(SYS_chdir, "/tmp"); }},
    {"chroot", [] { return syscall(SYS_chroot, "/"); }},
    {"umask", [] { return syscall(SYS_umask, 0); }},
    // programs and processes
    {"execve", Execute},
    {"execveat", ExecuteHeld},
    {"clone a process", [] { return Clone(SIGCHLD); }},
    {"clone for execve", [] { return Clone(CLONE_VM | CLONE_VFORK | SIGCHLD); }},
    {"clone into namespaces", [] { return Clone(CLONE_NEWUSER | CLONE_NEWNET | SIGCHLD); }},
    {"clone a thread elsewhere",
     [] { return Clone(CLONE_VM | CLONE_SIGHAND | CLONE_THREAD | CLONE_NEWNET); }},
    {"kill with nothing", [] { return Tell(0); }},
    {"kill", [] { return Tell(SIGTERM); }},
    {"kill all", [] { return syscall(SYS_kill, -1, 0); }},
    {"tkill", [] { return syscall(SYS_tkill, caller, 0); }},
    {"tgkill", [] { return syscall(SYS_tgkill, caller, caller, 0); }},
    {"rt_sigqueueinfo", [] { return syscall(SYS_rt_sigqueueinfo, caller, 0, 0); }},
    {"pidfd_open", [] { return syscall(SYS_pidfd_open, caller, 0); }},
    {"pidfd_send_signal", [] { return syscall(SYS_pidfd_send_signal, held, 0, 0, 0); }},
    {"pidfd_getfd", [] { return syscall(SYS_pidfd_getfd, held, 0, 0); }},
    {"ptrace", [] { return syscall(SYS_ptrace, PTRACE_ATTACH, caller, 0, 0); }},
    {"ptrace itself", [] { return syscall(SYS_ptrace, PTRACE_TRACEME, 0, 0, 0); }},
    {"process_vm_readv", [] { return PeekAt(SYS_process_vm_readv); }},
    {"process_vm_writev", [] { return PeekAt(SYS_process_vm_writev); }},
    {"kcmp", [] { return syscall(SYS_kcmp, caller, caller, 0, 0, 0); }},
    {"setsid", [] { return syscall(SYS_setsid); }},
    {"setpgid", [] { return syscall(SYS_setpgid, 0, 0); }},
    {"setpriority", [] { return syscall(SYS_setpriority, PRIO_PROCESS, 0, 0); }},
    {"sched_setaffinity", [] { return syscall(SYS_sched_setaffinity, 0, 0, 0); }},
    {"sched_setscheduler", [] { return syscall(SYS_sched_setscheduler, 0, 0, 0); }},
    // rights
    {"setuid", [] { return syscall(SYS_setuid, 0); }},
    {"setreuid", [] { return syscall(SYS_setreuid, -1, -1); }},
    {"setresuid", [] { return syscall(SYS_setresuid, 0, 0, 0); }},
    {"setgid", [] { return syscall(SYS_setgid, 0); }},
    {"setresgid", [] { return syscall(SYS_setresgid, -1, -1, -1); }},
    {"setgroups", [] { return syscall(SYS_setgroups, 0, 0); }},
    {"setfsuid", [] { return syscall(SYS_setfsuid, -1); }},
    {"capset", Capabilities},
    {"prctl to be dumpable", [] { return syscall(SYS_prctl, PR_SET_DUMPABLE, 1, 0, 0, 0); }},
    {"prctl to outlive", [] { return syscall(SYS_prctl, PR_SET_PDEATHSIG, 0, 0, 0, 0); }},
    {"prctl for a filter", [] { return syscall(SYS_prctl, PR_SET_SECCOMP, 2, 0, 0, 0); }},
    {"seccomp", [] { return syscall(SYS_seccomp, 2, 0, 0); }},
    {"personality", [] { return syscall(SYS_personality, 0xffffffff); }},
    {"setrlimit", [] { return syscall(SYS_setrlimit, RLIMIT_CORE, 0); }},
    {"prlimit64", [] { return RaiseLimit(0); }},
    {"prlimit64 of the caller", [] { return RaiseLimit(caller); }},
    {"landlock_create_ruleset", [] { return syscall(SYS_landlock_create_ruleset, 0, 0, 1); }},
    {"add_key", [] { return syscall(SYS_add_key, 0, 0, 0, 0, 0); }},
    {"keyctl", [] { return syscall(SYS_keyctl, 0, 0, 0, 0, 0); }},
    {"request_key", [] { return syscall(SYS_request_key, 0, 0, 0, 0); }},
    // sockets
    {"a raw socket", [] { return Socket(AF_INET, SOCK_RAW); }},
    {"a raw socket of IPv6", [] { return Socket(AF_INET6, SOCK_RAW); }},
    {"a packet socket", [] { return Socket(AF_PACKET, SOCK_DGRAM); }},
    {"a netlink socket", [] { return Socket(AF_NETLINK, SOCK_RAW); }},
    {"a netlink datagram socket", [] { return Socket(AF_NETLINK, SOCK_DGRAM); }},
    {"a local stream", [] { return Socket(AF_UNIX, SOCK_STREAM); }},
    {"a local datagram socket", [] { return Socket(AF_UNIX, SOCK_DGRAM); }},
    {"a socket of the kernel's ciphers", [] { return Socket(AF_ALG, SOCK_STREAM); }},
    {"a socket to the host", [] { return Socket(AF_VSOCK, SOCK_STREAM); }},
    {"a pair of datagram sockets", [] { return UselessPair(SOCK_DGRAM); }},
    {"a pair of packet sockets", [] { return UselessPair(SOCK_SEQPACKET); }},
    {"bind", Bind},
    {"listen", [] { return syscall(SYS_listen, Socket(AF_INET, SOCK_STREAM), 1); }},
    {"accept", [] { return syscall(SYS_accept, held, 0, 0); }},
    {"accept4", [] { return syscall(SYS_accept4, held, 0, 0, 0); }},
    // memory
    {"mmap to run", [] { return Map(PROT_READ | PROT_EXEC, -1, MAP_PRIVATE | MAP_ANONYMOUS); }},
    {"mmap to run a file", [] { return Map(PROT_READ | PROT_EXEC, held, MAP_PRIVATE); }},
    {"mprotect", [] { return MakeRunnable(SYS_mprotect); }},
    {"pkey_mprotect", [] { return MakeRunnable(SYS_pkey_mprotect); }},
    {"memfd_create", [] { return syscall(SYS_memfd_create, "new", 0); }},
    {"userfaultfd", [] { return syscall(SYS_userfaultfd, 0); }},
    {"shmget", [] { return syscall(SYS_shmget, 0, 4096, 0); }},
    {"msgget", [] { return syscall(SYS_msgget, 0, 0); }},
    {"mq_open", [] { return syscall(SYS_mq_open, "x", O_CREAT, 0600, 0); }},
    // the system
    {"mount", [] { return syscall(SYS_mount, 0, "/tmp", "tmpfs", 0, 0); }},
    {"umount2", [] { return syscall(SYS_umount2, "/tmp", 0); }},
    {"pivot_root", [] { return syscall(SYS_pivot_root, "/", "/"); }},
    {"open_tree", [] { return syscall(SYS_open_tree, AT_FDCWD, "/", 0); }},
    {"fsopen", [] { return syscall(SYS_fsopen, "tmpfs", 0); }},
    {"unshare", [] { return syscall(SYS_unshare, CLONE_NEWUSER); }},
    {"unshare files", [] { return syscall(SYS_unshare, CLONE_FILES); }},
    {"setns", [] { return syscall(SYS_setns, held, 0); }},
    {"bpf", [] { return syscall(SYS_bpf, 0, 0, 0); }},
    {"perf_event_open", [] { return syscall(SYS_perf_event_open, 0, 0, 0, 0, 0); }},
    {"io_uring_setup", [] { return syscall(SYS_io_uring_setup, 1, 0); }},
    {"ioctl to type", [] { return syscall(SYS_ioctl, 0, TIOCSTI, "x"); }},
    {"ioctl of a terminal", [] { return syscall(SYS_ioctl, 0, TIOCSCTTY, 0); }},
    {"reboot", [] { return syscall(SYS_reboot, 0, 0, 0, 0); }},
    {"settimeofday", [] { return syscall(SYS_settimeofday, 0, 0); }},
    {"clock_settime", [] { return syscall(SYS_clock_settime, 0, 0); }},
    {"adjtimex", [] { return syscall(SYS_adjtimex, 0); }},
    {"sethostname", [] { return syscall(SYS_sethostname, "x", -1); }},
    {"setdomainname", [] { return syscall(SYS_setdomainname, "x", -1); }},
    {"syslog", [] { return syscall(SYS_syslog, 10, 0, 0); }},
    {"init_module", [] { return syscall(SYS_init_module, 0, 0, 0); }},
    {"finit_module", [] { return syscall(SYS_finit_module, held, 0, 0); }},
    {"kexec_load", [] { return syscall(SYS_kexec_load, 0, 0, 0, 0); }},
    {"swapon", [] { return syscall(SYS_swapon, kVictim, 0); }},
    {"acct", [] { return syscall(SYS_acct, kVictim); }},
    {"quotactl", [] { return syscall(SYS_quotactl, 0, 0, 0, 0); }},
};

std::string Names() {
  std::string names;
  for (const Try& thing : kCalls) names += std::string(thing.name) + "\n";
  return names;
}

// --- What is refused only here and there. ---

sockaddr_un LocalService() {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  std::string_view("/tmp/service").copy(address.sun_path, sizeof address.sun_path - 1);
  return address;
}

// A pair is local too, and the two calls that it would take to reach others are allowed.
long ConnectPair(int family) {
  std::array<int, 2> ends{};
  sockaddr_un address = LocalService();
  address.sun_family = static_cast<sa_family_t>(family);
  (void)Pair(SOCK_STREAM, ends.data());
  (void)close(ends[1]);
  return syscall(SYS_connect, ends[0], &address, sizeof address);
}

long SendFromPair() {
  std::array<int, 2> ends{};
  const sockaddr_un address = LocalService();
  (void)Pair(SOCK_STREAM, ends.data());
  return syscall(SYS_sendto, ends[0], "x", 1, MSG_NOSIGNAL, &address, sizeof address);
}

long ConnectChannel() {
  const sockaddr_un address = LocalService();
  return syscall(SYS_connect, base::kChannel, &address, sizeof address);
}

// Until one too many; they are given back.
long OpenMany() {
  std::array<long, 100> many{};
  for (std::size_t index = 0; index < many.size(); ++index) {
    many[index] = Socket(AF_INET, SOCK_DGRAM);
    if (many[index] < 0) {
      const int reason = errno;
      std::for_each_n(many.begin(), index, [](long fd) { (void)close(static_cast<int>(fd)); });
      errno = reason;
      return -1;
    }
  }
  return 0;
}

constexpr Try kOthers[] = {
    {"write", [] { return syscall(SYS_write, held, "x", 1); }},
    {"clone3", [] { return syscall(SYS_clone3, 0, 0); }},
    {"openat2", [] { return syscall(SYS_openat2, AT_FDCWD, kVictim, 0, 0); }},
    {"close_range", [] { return syscall(SYS_close_range, 64, ~0U, 0); }},
    {"connect a pair", [] { return ConnectPair(AF_UNIX); }},
    {"disconnect a pair", [] { return ConnectPair(AF_UNSPEC); }},
    {"send from a pair", SendFromPair},
    {"connect the channel", ConnectChannel},
    {"open many", OpenMany},
    {"map a gigabyte",
     [] { return syscall(SYS_mmap, 0, 1L << 30, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0); }},
#ifdef __x86_64__
    {"a call of 32 bits",
     [] {
       long result = 20;  // getpid
       asm volatile("int $0x80" : "+a"(result) : : "memory", "r8", "r9", "r10", "r11");
       return result;
     }},
    {"a call of x32", [] { return syscall(0x40000000 | SYS_getpid); }},
#endif
};

// --- What has to work. ---

bool Resolves(const char* name) {
  addrinfo* found = nullptr;
  const int result = getaddrinfo(name, nullptr, nullptr, &found);
  if (result == 0) freeaddrinfo(found);
  return result == 0;
}

int ConnectTo(int port) {
  const sockaddr_in address = Loopback(port);
  const int fd = static_cast<int>(Socket(AF_INET, SOCK_STREAM));
  const auto* general = reinterpret_cast<const sockaddr*>(&address);
  return connect(fd, general, sizeof address) == 0 ? fd : -1;
}

bool Says(int port) { return send(ConnectTo(port), "x", 1, MSG_NOSIGNAL) == 1; }

// Tells the listener that it waits, and then does, for ever.
[[noreturn]] void Hang(int port) {
  (void)Says(port);
  for (;;) (void)poll(nullptr, 0, -1);
}

bool StartsThreads() {
  bool done = false;
  std::thread([&done] { done = true; }).join();
  return done;
}

bool DrawsLots() {
  std::array<char, 16> lots{};
  return getrandom(lots.data(), lots.size(), 0) == 16;
}

bool Reads(const std::string& path) { return std::ifstream(path).get() != EOF; }

// --- What it has. ---

std::string KindOf(const struct stat& status) {
  if (S_ISSOCK(status.st_mode)) return "socket";
  return S_ISCHR(status.st_mode) && status.st_rdev == makedev(1, 3) ? "null" : "other";
}

std::string Descriptors() {
  std::string kinds;
  for (int fd = 0; fd < 1024; ++fd) {
    struct stat status {};
    if (fd != held && fstat(fd, &status) == 0) {
      kinds += std::to_string(fd) + " " + KindOf(status) + "\n";
    }
  }
  return kinds;
}

std::string Environment() {
  std::string variables;
  for (char** variable = environ; *variable != nullptr; ++variable) {
    variables += std::string(*variable) + "\n";
  }
  return variables;
}

// --- Questions. ---

std::string Outcome(long result) { return result < 0 ? std::to_string(errno) : "done"; }

std::string Outcome(bool done) { return done ? "done" : "failed"; }

const Try* Find(std::string_view name) {
  for (const auto& [first, last] : {std::pair(std::begin(kCalls), std::end(kCalls)),
                                    {std::begin(kOthers), std::end(kOthers)}}) {
    const Try* found =
        std::find_if(first, last, [&](const Try& each) { return each.name == name; });
    if (found != last) return found;
  }
  return nullptr;
}

// Of a question "WORD ARGUMENT".
std::string AnswerWith(std::string_view word, const std::string& argument) {
  if (word == "read") return Outcome(syscall(SYS_openat, AT_FDCWD, argument.c_str(), O_RDONLY));
  if (word == "write") return Outcome(syscall(SYS_openat, AT_FDCWD, argument.c_str(), O_WRONLY));
  if (word == "create") {
    return Outcome(syscall(SYS_openat, AT_FDCWD, argument.c_str(), O_CREAT | O_WRONLY, 0600));
  }
  if (word == "use") return Outcome(Reads(argument));
  if (word == "resolve") return Outcome(Resolves(argument.c_str()));
  if (word == "connect") return Outcome(Says(std::stoi(argument)));
  if (word == "hang") Hang(std::stoi(argument));
  return "no such question";
}

std::string Answer(const std::string& question) {
  if (const Try* found = Find(question)) return Outcome(found->call());
  if (question == "names") return Names();
  if (question == "pid") return std::to_string(getpid());
  if (question == "descriptors") return Descriptors();
  if (question == "environment") return Environment();
  if (question == "thread") return Outcome(StartsThreads());
  if (question == "lots") return Outcome(DrawsLots());
  const std::size_t space = question.find(' ');
  return space == std::string::npos
             ? "no such question"
             : AnswerWith(question.substr(0, space), question.substr(space + 1));
}

}  // namespace

int main() {
  RememberSurroundings();
  std::_Exit(base::ServeConfined(4096, Answer));
}
