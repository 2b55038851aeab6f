// The log lines of the HTTP worker. It has no log of its own: it tells which of these lines it
// would write, and with which values; the program that asked writes them.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "core/log.h"

namespace nodelink::http {

inline constexpr std::size_t kMostFacts = 16;
inline constexpr std::size_t kLongestFacts = std::size_t{512} * 1024;  // all of an answer

// One line: a format of the table, where in its source file, and what stands in the places of its
// conversions. Of the platform's error triple, with which a format may end, only the program knows.
struct LogFact {
  std::size_t format = 0;
  int line = 0;
  std::vector<std::variant<std::int64_t, std::string>> values;
};

struct LogFormat {
  std::string_view file;
  std::string_view format;
};

std::size_t FormatCount();
const LogFormat& FormatAt(std::size_t index);

// What a format's conversions take, one letter each: 's' for a text, 'd' for a number; without
// those of the triple.
std::string ConversionsOf(std::string_view format);

// The fact of a call of LogError. Nothing when the table has no such format.
std::optional<LogFact> FactOf(LogSite site, std::string_view format, va_list values);

// Writes the line. The values fit the format.
void Log(const LogFact& fact);

}  // namespace nodelink::http
