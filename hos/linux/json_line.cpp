#include "hos/linux/json_line.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <ctime>

#include "base/atomic_replace.h"
#include "base/json_text.h"
#include "base/unique_fd.h"
#include "hos/linux/error.h"
#include "hos/linux/file.h"

namespace hos_linux {
namespace {

constexpr mode_t kFileMode = 0600;
constexpr mode_t kFolderMode = 0755;

bool EnsureFolderOf(const std::string& path) {
  const std::string folder = path.substr(0, path.rfind('/'));
  return mkdir(folder.c_str(), kFolderMode) == 0 || errno == EEXIST || FalseFromErrno();
}

// A writer that was killed, or a full disk, may have left half a line: it must not swallow ours.
bool EndsInsideLine(int fd, off_t size) {
  char last = '\n';
  return size > 0 && pread(fd, &last, 1, size - 1) == 1 && last != '\n';
}

bool AppendLine(int fd, std::string line) {
  struct stat info = {};
  if (fstat(fd, &info) != 0) return FalseFromErrno();
  if (!S_ISREG(info.st_mode)) return False(kBadContent);
  if (EndsInsideLine(fd, info.st_size)) line.insert(0, 1, '\n');
  if (base::WriteAll(fd, line)) return true;
  SetErrorFromErrno();
  if (ftruncate(fd, info.st_size) != 0) SetErrorFromErrno();
  return false;
}

}  // namespace

bool AppendJsonLine(const std::string& path, Json::Value record) {
  record["time"] = Json::Int64{std::time(nullptr)};
  if (!EnsureFolderOf(path)) return false;
  constexpr int kFlags =
      O_RDWR | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY;
  const base::UniqueFd fd(open(path.c_str(), kFlags, kFileMode));
  if (!fd) return FalseFromErrno();
  if (!base::LockWithinLimit(fd.get())) return FalseFromErrno();
  return AppendLine(fd.get(), base::JsonText(record) + "\n");
}

}  // namespace hos_linux
