#include "base/read_file.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>

#include "base/unique_fd.h"

namespace base {
namespace {

// Reads to the end of the file; one byte more than `limit` shows that it is too large, however
// large it said it was.
bool ReadAll(int fd, std::size_t limit, std::string& text) {
  while (text.size() <= limit) {
    const std::size_t old_size = text.size();
    constexpr std::size_t kBlock = 8192;
    text.resize(old_size + kBlock);
    const ssize_t count = read(fd, text.data() + old_size, kBlock);
    text.resize(old_size + static_cast<std::size_t>(count > 0 ? count : 0));
    if (count == 0) {
      return true;
    }
    if (count < 0 && errno != EINTR) {
      return false;
    }
  }
  errno = EFBIG;
  return false;
}

bool IsRegular(int fd) {
  struct stat status {};
  if (fstat(fd, &status) != 0) {
    return false;
  }
  errno = ENOTSUP;
  return S_ISREG(status.st_mode);
}

}  // namespace

bool ReadFile(const std::string& path, std::size_t limit, std::string& text) {
  text.clear();
  // Opening a FIFO for reading would wait for a writer; O_NONBLOCK does not, and means nothing to a
  // regular file.
  const UniqueFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (file && IsRegular(file.get()) && ReadAll(file.get(), limit, text)) {
    return true;
  }
  text.clear();
  return false;
}

}  // namespace base
