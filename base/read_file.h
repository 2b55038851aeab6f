// Reading a small file whole.
#pragma once

#include <cstddef>
#include <string>

namespace base {

// Reads the regular file `path` into `text`. False, with errno set and `text` empty, when it cannot
// be opened or read, is no regular file (ENOTSUP) or is larger than `limit` bytes (EFBIG).
[[nodiscard]] bool ReadFile(const std::string& path, std::size_t limit, std::string& text);

// The same of a file that is open already, appended to `text`.
[[nodiscard]] bool ReadRegularFile(int fd, std::size_t limit, std::string& text);

}  // namespace base
