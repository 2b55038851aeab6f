#include "base/atomic_replace.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "base/unique_fd.h"

namespace base {
namespace {

constexpr uid_t kOwnerOfProcess = static_cast<uid_t>(-1);
constexpr gid_t kGroupOfProcess = static_cast<gid_t>(-1);

std::string FolderOf(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  if (slash == std::string::npos) {
    return ".";
  }
  return slash == 0 ? "/" : path.substr(0, slash);
}

// ".NAME.XXXXXX" beside the file: the dot keeps it out of listings and out of folders that are read
// name by name.
std::string TemporaryTemplate(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  const std::string name = path.substr(slash == std::string::npos ? 0 : slash + 1);
  return FolderOf(path) + "/." + name + ".XXXXXX";
}

// A new file that is removed again unless it is renamed.
class TemporaryFile {
 public:
  explicit TemporaryFile(const std::string& target)
      : name_(TemporaryTemplate(target)), fd_(mkostemp(name_.data(), O_CLOEXEC)) {}
  TemporaryFile(const TemporaryFile&) = delete;
  TemporaryFile& operator=(const TemporaryFile&) = delete;
  ~TemporaryFile() {
    if (made_ && !renamed_) {
      const int reason = errno;
      unlink(name_.c_str());
      errno = reason;
    }
  }

  bool made() const { return made_; }
  int fd() const { return fd_.get(); }
  bool Close() { return fd_.Close(); }
  bool RenameTo(const std::string& path) {
    renamed_ = rename(name_.c_str(), path.c_str()) == 0;
    return renamed_;
  }

 private:
  std::string name_;
  UniqueFd fd_;
  const bool made_ = static_cast<bool>(fd_);
  bool renamed_ = false;
};

bool WriteAll(int fd, std::string_view content) {
  while (!content.empty()) {
    const ssize_t count = write(fd, content.data(), content.size());
    if (count < 0 && errno != EINTR) {
      return false;
    }
    content.remove_prefix(static_cast<std::size_t>(count > 0 ? count : 0));
  }
  return true;
}

bool Flush(int fd) {
  int result = 0;
  do {
    result = fsync(fd);
  } while (result != 0 && errno == EINTR);
  return result == 0;
}

bool SetOwner(int fd, uid_t owner, gid_t group) {
  return (owner == kOwnerOfProcess && group == kGroupOfProcess) || fchown(fd, owner, group) == 0;
}

bool FlushFolder(const std::string& folder) {
  const UniqueFd fd(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  return fd && Flush(fd.get());
}

}  // namespace

bool AtomicReplace(const std::string& path, std::string_view content, mode_t mode, uid_t owner,
                   gid_t group) {
  TemporaryFile file(path);
  return file.made() && WriteAll(file.fd(), content) && SetOwner(file.fd(), owner, group) &&
         fchmod(file.fd(), mode) == 0 && Flush(file.fd()) && file.Close() && file.RenameTo(path) &&
         FlushFolder(FolderOf(path));
}

bool AtomicReplace(const std::string& path, std::string_view content, mode_t mode) {
  return AtomicReplace(path, content, mode, kOwnerOfProcess, kGroupOfProcess);
}

}  // namespace base
