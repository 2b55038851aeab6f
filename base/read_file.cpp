#include "base/read_file.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>

#include "base/unique_fd.h"

namespace base {
namespace {

// Files that are replaced as a whole never grow: `size` bytes are all of them, and no further read
// has to ask for the end. The kernel's own files say 0.
bool ReadToEnd(int fd, std::size_t size, std::size_t limit, std::string& text) {
  while (text.size() <= limit) {
    const std::size_t old_size = text.size();
    constexpr std::size_t kBlock = 8192;
    const std::size_t wanted = size > old_size ? size - old_size : kBlock;
    text.resize(old_size + wanted);
    const ssize_t count = read(fd, text.data() + old_size, wanted);
    text.resize(old_size + static_cast<std::size_t>(count > 0 ? count : 0));
    if (count == 0 || (count > 0 && text.size() == size && size <= limit)) return true;
    if (count < 0 && errno != EINTR) return false;
  }
  errno = EFBIG;
  return false;
}

}  // namespace

bool ReadRegularFile(int fd, std::size_t limit, std::string& text) {
  struct stat status {};
  if (fstat(fd, &status) != 0) return false;
  if (!S_ISREG(status.st_mode)) {
    errno = ENOTSUP;
    return false;
  }
  const auto size = static_cast<std::size_t>(status.st_size);
  return ReadToEnd(fd, std::min(size, limit + 1), limit, text);
}

bool ReadFile(const std::string& path, std::size_t limit, std::string& text) {
  text.clear();
  // Opening a FIFO for reading would wait for a writer; O_NONBLOCK does not, and means nothing to a
  // regular file.
  const UniqueFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (file && ReadRegularFile(file.get(), limit, text)) return true;
  text.clear();
  return false;
}

}  // namespace base
