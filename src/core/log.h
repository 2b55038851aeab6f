// The program's log: syslog lines that begin with the source file and line they come from.
#pragma once

#include <cstddef>
#include <string_view>

#include "klibc/error.h"

// The platform's error triple, for formats that end in "[0x%04X %s:%d]".
#define PLATFORM_ERROR_TRIPLE \
  static_cast<unsigned int>(KLIBCErrGet()), KLIBCErrorGetFile(), KLIBCErrorGetLine()

namespace nodelink {

// Where a log line comes from: the source file's base name without extension, and the line.
struct LogSite {
  std::string_view file;
  int line;
};

// "/src/account/user.cpp" gives "user".
constexpr std::string_view SourceName(std::string_view path) {
  path.remove_prefix(path.rfind('/') + 1);  // npos + 1 is 0
  return path.substr(0, path.find('.'));
}

// The place that calls it.
constexpr LogSite Here(const char* file = __builtin_FILE(), int line = __builtin_LINE()) {
  return {SourceName(file), line};
}

// A longer message is cut: the system log takes one datagram a line and drops a larger one whole,
// in silence, and answers of servers, which some lines quote, can be that large.
inline constexpr std::size_t kLongestMessage = 128 * 1024;

// Logs "<file>:<line> <message>" at priority error, or at `priority` (which may name a facility).
// `format` and what follows are those of printf.
void LogError(LogSite site, const char* format, ...) __attribute__((format(printf, 2, 3)));
void LogAt(int priority, LogSite site, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

}  // namespace nodelink
