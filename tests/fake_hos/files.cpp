#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>

#include "hos/linux/keyvalue_text.h"
#include "klibc/filelock.h"
#include "klibc/keyvalue.h"
#include "tests/fake_hos/internal.h"

namespace fake_hos {
namespace {

enum class ReadResult { kRead, kMissing, kBroken };

struct FileText {
  ReadResult result;
  std::string text;
};

FileText ReadFile(const char* path) {
  if (access(path, F_OK) != 0 && errno == ENOENT) return {ReadResult::kMissing, ""};
  std::ifstream file(path, std::ios::binary);
  if (!file || std::filesystem::is_directory(path)) return {ReadResult::kBroken, ""};
  return {ReadResult::kRead, std::string(std::istreambuf_iterator<char>(file), {})};
}

bool WriteFile(const char* path, const std::string& text) {
  const int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (fd < 0) return false;
  const bool written = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  return close(fd) == 0 && written;
}

std::optional<std::string> ValueIn(const FileText& file, const char* key,
                                   const char* separator = "=") {
  const auto value = hos_linux::FindValue(file.text, key, separator);
  return value ? std::optional<std::string>(value->substr(0, value->find('\0'))) : std::nullopt;
}

bool TryLock(const char* path, int* fd) {
  const int lock = open(path, O_RDWR | O_CLOEXEC | O_NOFOLLOW);
  if (lock < 0) return false;
  if (flock(lock, LOCK_EX | LOCK_NB) != 0) {
    close(lock);
    return false;
  }
  platform().ObjectMade();
  *fd = lock;
  return true;
}

}  // namespace
}  // namespace fake_hos

using fake_hos::Failed;
using fake_hos::platform;
using fake_hos::ReadResult;
using fake_hos::Text;

extern "C" {

int KLIBCFileGetKeyValue(const char* path, const char* key, char* buffer, int size, int flags) {
  if (!platform().Enter("KLIBCFileGetKeyValue", {Text(path), Text(key), Text(size), Text(flags)})) {
    return -1;
  }
  if (path == nullptr || key == nullptr || buffer == nullptr || size < 1) return Failed(-1);
  buffer[0] = '\0';
  const fake_hos::FileText file = fake_hos::ReadFile(path);
  if (file.result == ReadResult::kBroken) return Failed(-1);
  return fake_hos::CopyOut(fake_hos::ValueIn(file, key).value_or(""), buffer, size);
}

int KLIBCFileSetKeyValue(const char* path, const char* key, const char* value,
                         const char* line_format) {
  if (!platform().Enter("KLIBCFileSetKeyValue",
                        {Text(path), Text(key), Text(value), Text(line_format)})) {
    return -1;
  }
  if (path == nullptr || key == nullptr || value == nullptr || line_format == nullptr) {
    return Failed(-1);
  }
  const auto line = hos_linux::MakeLine(line_format, key, value);
  const fake_hos::FileText file = fake_hos::ReadFile(path);
  if (!line || file.result == ReadResult::kBroken) return Failed(-1);
  return fake_hos::WriteFile(path, hos_linux::WithLine(file.text, key, *line)) ? 0 : Failed(-1);
}

int KLIBCFileCheckKeyValue(const char* path, const char* key, const char* value, int flags) {
  if (!platform().Enter("KLIBCFileCheckKeyValue",
                        {Text(path), Text(key), Text(value), Text(flags)})) {
    return -1;
  }
  if (path == nullptr || key == nullptr || value == nullptr) return Failed(-1);
  const fake_hos::FileText file = fake_hos::ReadFile(path);
  if (file.result == ReadResult::kBroken) return Failed(-1);
  return fake_hos::ValueIn(file, key) == std::string(value) ? 1 : 0;
}

int KLIBCFileGetKeys(const char* path, KLIBCSZLIST* keys, KLIBCSZHASH* values,
                     const char* separator) {
  if (!platform().Enter("KLIBCFileGetKeys", {Text(path), Text(separator)})) return -1;
  if (path == nullptr || keys == nullptr || values == nullptr || separator == nullptr) {
    return Failed(-1);
  }
  const fake_hos::FileText file = fake_hos::ReadFile(path);
  if (file.result != ReadResult::kRead) return Failed(-1);
  int found = 0;
  for (const std::string& key : keys->texts) {
    const auto value = fake_hos::ValueIn(file, key.c_str(), separator);
    if (!value) continue;
    fake_hos::SetInHash(*values, key, *value);
    ++found;
  }
  return found;
}

int KLIBCFileLockByFile(const char* path, int exclusive, int* fd) {
  if (!platform().Enter("KLIBCFileLockByFile", {Text(path), Text(exclusive)})) return 0;
  if (path == nullptr || fd == nullptr) return Failed(0);
  if (platform().busy_lock_tries > 0) {
    --platform().busy_lock_tries;
    return Failed(0);
  }
  if (!fake_hos::TryLock(path, fd)) return Failed(0);
  if (platform().locked) platform().locked();
  return 1;
}

int KLIBCFileUnlockByFile(int fd) {
  const bool works = platform().Enter("KLIBCFileUnlockByFile", {});
  if (close(fd) != 0) return Failed(0);
  platform().ObjectGone();
  return works ? 1 : 0;
}
}
