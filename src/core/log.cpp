#include "core/log.h"

#include <syslog.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <string>

namespace nodelink {
namespace {

std::string Message(const char* format, va_list values) {
  va_list again;
  va_copy(again, values);
  const int length = std::vsnprintf(nullptr, 0, format, again);
  va_end(again);
  const auto size = std::min(static_cast<std::size_t>(std::max(length, 0)), kLongestMessage);
  std::string text(size + 1, '\0');
  std::vsnprintf(text.data(), text.size(), format, values);
  text.pop_back();
  return text;
}

void LogLine(int priority, LogSite site, const char* format, va_list values) {
  const int saved_errno = errno;  // the caller's
  syslog(priority, "%.*s:%d %s", static_cast<int>(site.file.size()), site.file.data(), site.line,
         Message(format, values).c_str());
  errno = saved_errno;
}

}  // namespace

void LogError(LogSite site, const char* format, ...) {
  va_list values;
  va_start(values, format);
  LogLine(LOG_ERR, site, format, values);
  va_end(values);
}

void LogAt(int priority, LogSite site, const char* format, ...) {
  va_list values;
  va_start(values, format);
  LogLine(priority, site, format, values);
  va_end(values);
}

}  // namespace nodelink
