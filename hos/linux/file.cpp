#include "file.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "base/unique_fd.h"
#include "error.h"
#include "keyvalue_text.h"

namespace hos_linux {
namespace {

constexpr std::size_t kFirstLineLimit = 4096;
constexpr std::string_view kBlanks{" \t\r\n\v\f\0", 7};

bool IsRegular(int fd) {
  struct stat info = {};
  return fstat(fd, &info) == 0 && S_ISREG(info.st_mode);
}

// Appends the rest of `fd` to `text`, up to one byte more than `limit`. The size that fstat gives
// is no guide: it is 0 for files of the kernel, and another program may be writing.
bool ReadToEnd(int fd, std::size_t limit, std::string& text) {
  char block[16384];
  while (text.size() <= limit) {
    const ssize_t got = read(fd, block, std::min(sizeof block, limit + 1 - text.size()));
    if (got == 0) return true;
    if (got < 0 && errno != EINTR) return FalseFromErrno();
    if (got > 0) text.append(block, static_cast<std::size_t>(got));
  }
  return False(kTooBig);
}

}  // namespace

FileText ReadFileAt(int folder, const char* path, std::size_t limit, Links links) {
  const int no_link = links == Links::kRefuse ? O_NOFOLLOW : 0;
  const base::UniqueFd fd(
      openat(folder, path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY | no_link));
  FileText file;
  if (!fd) {
    file.state = errno == ENOENT ? ReadState::kMissing : ReadState::kFailed;
    SetErrorFromErrno();
  } else if (!IsRegular(fd.get())) {
    SetError(kBadContent);
  } else if (ReadToEnd(fd.get(), limit, file.text)) {
    file.state = ReadState::kRead;
  }
  return file;
}

FileText ReadFile(const char* path, std::size_t limit) {
  return ReadFileAt(AT_FDCWD, path, limit, Links::kFollow);
}

std::optional<std::string> ReadFirstLine(const char* path) {
  const FileText file = ReadFile(path, kFirstLineLimit);
  const std::string_view line = std::string_view(file.text).substr(0, file.text.find('\n'));
  const std::size_t first = line.find_first_not_of(kBlanks);
  if (file.state != ReadState::kRead || first == std::string_view::npos) return std::nullopt;
  return std::string(line.substr(first, line.find_last_not_of(kBlanks) - first + 1));
}

std::optional<std::string> ReadKey(const char* path, const char* key) {
  const FileText file = ReadFile(path, kMaxKeyValueFile);
  const auto value = FindValue(file.text, key, "=");
  if (file.state != ReadState::kRead || !value || value->empty()) return std::nullopt;
  return std::string(*value);
}

int CopyOut(std::string_view text, char* buffer, int size) {
  const std::string_view until_nul = text.substr(0, text.find('\0'));
  const std::size_t length = std::min(until_nul.size(), static_cast<std::size_t>(size) - 1);
  std::memcpy(buffer, until_nul.data(), length);
  buffer[length] = '\0';
  return static_cast<int>(length);
}

}  // namespace hos_linux
