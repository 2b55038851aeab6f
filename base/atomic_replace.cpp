#include "base/atomic_replace.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <optional>
#include <vector>

#include "base/folder.h"

namespace base {
namespace {

constexpr mode_t kPrivateMode = 0600;
constexpr long kFirstPause = 500'000;       // nanoseconds
constexpr long kLongestPause = 20'000'000;  // nanoseconds

// Between a dot and this stands the name of the file that is to be replaced. A dot name: cron,
// run-parts and the like do not take it for a file of theirs.
constexpr std::string_view kTemporaryMark = ".tmp-";

// The name of the file that the temporary file `name` was to replace; empty when it is none.
std::string_view ReplacedBy(std::string_view name) {
  const std::size_t mark = name.rfind(kTemporaryMark);
  return name.starts_with('.') && mark != name.npos && mark > 0 ? name.substr(1, mark - 1) : "";
}

std::optional<std::string> TemporaryName(const std::string& name) {
  std::uint64_t number = 0;
  if (getrandom(&number, sizeof(number), 0) != sizeof(number)) return std::nullopt;
  std::array<char, 17> digits{};
  std::snprintf(digits.data(), digits.size(), "%016llx", static_cast<unsigned long long>(number));
  return TemporaryPrefix(name) + digits.data();
}

bool Flush(int fd) {
  int result = 0;
  do {
    result = fsync(fd);
  } while (result != 0 && errno == EINTR);
  return result == 0;
}

bool IsOfRootAlone(int fd) {
  struct stat info {};
  if (fstat(fd, &info) != 0) return false;
  errno = EPERM;
  return S_ISREG(info.st_mode) && info.st_uid == 0 && (info.st_mode & (S_IRWXG | S_IRWXO)) == 0;
}

// A new file that is removed again unless it is renamed.
class TemporaryFile {
 public:
  TemporaryFile(int folder, std::string name)
      : folder_(folder),
        name_(std::move(name)),
        fd_(openat(folder, name_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                   kPrivateMode)),
        exists_(fd_) {}
  TemporaryFile(const TemporaryFile&) = delete;
  TemporaryFile& operator=(const TemporaryFile&) = delete;
  ~TemporaryFile() {
    if (exists_) {
      const int reason = errno;
      unlinkat(folder_, name_.c_str(), 0);
      errno = reason;
    }
  }

  bool made() const { return exists_; }

  bool Own(const FileAttributes& attributes) const {
    struct stat mine {};
    if (fstat(fd_.get(), &mine) != 0) return false;
    const bool owned = mine.st_uid == attributes.owner && mine.st_gid == attributes.group;
    return (owned || fchown(fd_.get(), attributes.owner, attributes.group) == 0) &&
           fchmod(fd_.get(), attributes.mode) == 0;
  }

  bool Fill(std::string_view content) {
    return WriteAll(fd_.get(), content) && Flush(fd_.get()) && fd_.Close();
  }

  bool RenameTo(const std::string& name) {
    exists_ = renameat(folder_, name_.c_str(), folder_, name.c_str()) != 0;
    return !exists_;
  }

 private:
  int folder_;
  std::string name_;
  UniqueFd fd_;
  bool exists_;
};

template <typename Belongs>
void RemoveTemporaryFiles(int folder, Belongs belongs) {
  for (const std::string& entry : NamesIn(folder).value_or(std::vector<std::string>())) {
    const std::string_view replaced = ReplacedBy(entry);
    if (!replaced.empty() && belongs(replaced)) unlinkat(folder, entry.c_str(), 0);
  }
}

}  // namespace

bool WriteAll(int fd, std::string_view content) {
  while (!content.empty()) {
    const ssize_t count = write(fd, content.data(), content.size());
    if (count < 0 && errno != EINTR) return false;
    content.remove_prefix(static_cast<std::size_t>(count > 0 ? count : 0));
  }
  return true;
}

bool LockWithinLimit(int fd, std::chrono::milliseconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  for (long pause = kFirstPause; flock(fd, LOCK_EX | LOCK_NB) != 0;) {
    if ((errno != EWOULDBLOCK && errno != EINTR) || std::chrono::steady_clock::now() >= deadline) {
      return false;
    }
    const timespec length = {0, pause};
    nanosleep(&length, nullptr);
    pause = std::min(pause * 2, kLongestPause);
  }
  return true;
}

bool StandsAt(int fd, const char* path) {
  struct stat open_file {};
  struct stat standing {};
  return fstat(fd, &open_file) == 0 && lstat(path, &standing) == 0 &&
         open_file.st_dev == standing.st_dev && open_file.st_ino == standing.st_ino;
}

std::string TemporaryPrefix(std::string_view name) {
  return "." + std::string(name) + std::string(kTemporaryMark);
}

std::string FileNameOf(const std::string& path) { return path.substr(path.rfind('/') + 1); }

UniqueFd LockFileOfRoot(const char* path) {
  constexpr int kFlags = O_RDONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
  UniqueFd file(open(path, kFlags, kPrivateMode));
  return file && IsOfRootAlone(file.get()) && LockWithinLimit(file.get()) ? std::move(file)
                                                                          : UniqueFd();
}

UniqueFd OpenFolderOf(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  const std::string folder = slash == std::string::npos ? "." : path.substr(0, slash + 1);
  return UniqueFd(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
}

UniqueFd LockFolderOf(const std::string& path) {
  UniqueFd fd = OpenFolderOf(path);
  return fd && LockWithinLimit(fd.get()) ? std::move(fd) : UniqueFd();
}

bool FlushFolderOf(const std::string& path) {
  const UniqueFd folder = OpenFolderOf(path);
  return folder && Flush(folder.get());
}

bool ReplaceInFolder(const UniqueFd& folder, const std::string& name, std::string_view content,
                     const FileAttributes& attributes) {
  // While the folder is locked, nobody can be at them.
  RemoveTemporaryFiles(folder.get(), [&name](std::string_view other) { return other == name; });
  const auto temporary_name = TemporaryName(name);
  if (!temporary_name) return false;
  TemporaryFile file(folder.get(), *temporary_name);
  return file.made() && file.Own(attributes) && file.Fill(content) && file.RenameTo(name) &&
         Flush(folder.get());
}

void RemoveLeftovers(const UniqueFd& folder, bool (*belongs)(std::string_view name)) {
  RemoveTemporaryFiles(folder.get(), belongs);
}

bool AtomicReplace(const std::string& path, std::string_view content, mode_t mode) {
  const UniqueFd folder = LockFolderOf(path);
  return folder && ReplaceInFolder(folder, FileNameOf(path), content, {mode, geteuid(), getegid()});
}

}  // namespace base
