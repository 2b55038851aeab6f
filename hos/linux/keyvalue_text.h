// The text of a key-value file, without any file: finding and replacing a key's line.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace hos_linux {

// No key-value file is bigger than this; a bigger one is some other file.
inline constexpr std::size_t kMaxKeyValueFile = std::size_t{1024} * 1024;

// The value of the first line of `key` in `text`, without its quotes; a view into `text`.
[[nodiscard]] std::optional<std::string_view> FindValue(std::string_view text, std::string_view key,
                                                        std::string_view separator);

// The line that `line_format` (two %s, and %% for a per cent sign; nothing else) makes of key and
// value. Nothing when the format is another, or when the line would not give back the same key and
// value.
[[nodiscard]] std::optional<std::string> MakeLine(std::string_view line_format,
                                                  std::string_view key, std::string_view value);

// `text` with the first line of `key` replaced by `line`, or with `line` appended.
[[nodiscard]] std::string WithLine(std::string_view text, std::string_view key,
                                   std::string_view line);

}  // namespace hos_linux
