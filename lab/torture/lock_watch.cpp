#include "lab/torture/lock_watch.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <system_error>

namespace torture {
namespace {

int Checked(int result, const char* what) {
  if (result < 0) throw std::system_error(errno, std::generic_category(), what);
  return result;
}

std::string TracePath() {
  static int number = 0;
  return "/tmp/locks-" + std::to_string(getpid()) + "-" + std::to_string(++number);
}

// The file in "PID flock(5</the/file>, LOCK_EX|LOCK_NB) = -1 EAGAIN (...)"; nothing in other lines.
std::optional<std::string> FileOf(const std::string& line) {
  const std::size_t begin = line.find('<');
  const std::size_t end = line.find('>', begin);
  if (line.find("flock(") == std::string::npos || line.find("EAGAIN") == std::string::npos ||
      end == std::string::npos) {
    return std::nullopt;
  }
  return line.substr(begin + 1, end - begin - 1);
}

}  // namespace

LockWatch::LockWatch() : path_(TracePath()) {
  Checked(mkfifo(path_.c_str(), 0600), "mkfifo");
  trace_ = base::UniqueFd(
      Checked(open(path_.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC), "open for reading"));
  writer_ = base::UniqueFd(Checked(open(path_.c_str(), O_WRONLY | O_CLOEXEC), "open for writing"));
}

LockWatch::~LockWatch() { unlink(path_.c_str()); }

std::vector<std::string> LockWatch::Prefix() const {
  return {"strace",      "-f",          "-y", "-qq",           "--seccomp-bpf",
          "-e",          "trace=flock", "-e", "status=failed", "-e",
          "signal=none", "-o",          path_};
}

bool LockWatch::Read() {
  std::array<char, 4096> bytes{};
  const ssize_t count = read(trace_.get(), bytes.data(), bytes.size());
  if (count <= 0) return false;
  unread_.append(bytes.data(), static_cast<std::size_t>(count));
  return true;
}

std::optional<std::string> LockWatch::BusyLock() {
  for (std::size_t end = 0; (end = unread_.find('\n')) != std::string::npos;) {
    auto file = FileOf(unread_.substr(0, end));
    unread_.erase(0, end + 1);
    if (file) return file;
  }
  return std::nullopt;
}

std::optional<std::string> LockWatch::WaitForBusyLock(pid_t process) {
  const base::UniqueFd end(
      Checked(static_cast<int>(syscall(SYS_pidfd_open, process, 0)), "pidfd_open"));
  for (;;) {
    std::array<pollfd, 2> watched{{{trace_.get(), POLLIN, 0}, {end.get(), POLLIN, 0}}};
    if (poll(watched.data(), watched.size(), -1) < 0 && errno != EINTR) return std::nullopt;
    while (Read()) {
    }
    if (auto file = BusyLock()) return file;
    if (watched[1].revents != 0) return std::nullopt;
  }
}

}  // namespace torture
