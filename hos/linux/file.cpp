#include "hos/linux/file.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "base/read_file.h"
#include "base/unique_fd.h"
#include "hos/linux/error.h"
#include "hos/linux/keyvalue_text.h"

namespace hos_linux {
namespace {

constexpr std::size_t kFirstLineLimit = 4096;
constexpr std::string_view kBlanks{" \t\r\n\v\f\0", 7};

bool ReadAll(int fd, std::size_t limit, std::string& text) {
  if (base::ReadRegularFile(fd, limit, text)) return true;
  if (errno == ENOTSUP) return False(kBadContent);
  return errno == EFBIG ? False(kTooBig) : FalseFromErrno();
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
  } else if (ReadAll(fd.get(), limit, file.text)) {
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

bool StaysBelow(const std::string& name) {
  const std::string framed = "/" + name + "/";
  return framed.find("//") == std::string::npos && framed.find("/.") == std::string::npos;
}

int CopyOut(std::string_view text, char* buffer, int size) {
  const std::string_view until_nul = text.substr(0, text.find('\0'));
  const std::size_t length = std::min(until_nul.size(), static_cast<std::size_t>(size) - 1);
  std::memcpy(buffer, until_nul.data(), length);
  buffer[length] = '\0';
  return static_cast<int>(length);
}

}  // namespace hos_linux
