// Reading whole small files.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace hos_linux {

enum class ReadState { kRead, kMissing, kFailed };

struct FileText {
  ReadState state = ReadState::kFailed;
  std::string text;
};

enum class Links { kFollow, kRefuse };

// Reads the regular file `path`, relative to the open folder `folder` (or AT_FDCWD). Neither a
// device nor a pipe can make it wait; a file above `limit` bytes is a failure.
[[nodiscard]] FileText ReadFileAt(int folder, const char* path, std::size_t limit, Links links);
[[nodiscard]] FileText ReadFile(const char* path, std::size_t limit);

// The first line of a small file, without white space or NULs at its ends; nothing when the file is
// missing, cannot be read or the line is empty.
[[nodiscard]] std::optional<std::string> ReadFirstLine(const char* path);

// The value of `key` in the key-value file `path`; nothing when file, key or value is missing.
[[nodiscard]] std::optional<std::string> ReadKey(const char* path, const char* key);

// Whether the relative path `name` stays below the folder that it starts from: it has no empty part
// and none that begins with a dot.
[[nodiscard]] bool StaysBelow(const std::string& name);

// Copies `text`, cut at its first NUL and at size - 1 bytes, into `buffer` of `size` bytes (1 or
// more) and ends it with NUL. Gives the length of the copy.
int CopyOut(std::string_view text, char* buffer, int size);

}  // namespace hos_linux
