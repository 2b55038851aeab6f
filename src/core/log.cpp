#include "core/log.h"

#include <syslog.h>

#include <cerrno>
#include <cstdarg>
#include <string>

namespace nodelink {
namespace {

void LogLine(int priority, LogSite site, const char* format, va_list values) {
  const int saved_errno = errno;  // the text of %m, and the caller's after the call
  std::string line(site.file);
  line.append(":").append(std::to_string(site.line)).append(" ").append(format);
  errno = saved_errno;
  vsyslog(priority, line.c_str(), values);
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
