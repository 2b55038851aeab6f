#include "http/worker_surroundings.h"

#include <cstdio>
#include <utility>

namespace nodelink {
namespace http {
namespace {

const DeviceApiQuestion* current = nullptr;

std::vector<LogFact>& TheLog() {
  static std::vector<LogFact> log;
  return log;
}

// As the platform does: cut to the buffer, or -1 when it cannot tell.
int Give(const std::optional<std::string>& text, char* buffer, int size) {
  if (!text) return -1;
  std::snprintf(buffer, static_cast<std::size_t>(size), "%s", text->c_str());
  return 0;
}

}  // namespace

PlatformAnswers::PlatformAnswers(const DeviceApiQuestion& question) { current = &question; }

PlatformAnswers::~PlatformAnswers() { current = nullptr; }

std::vector<LogFact> TakeLog() { return std::exchange(TheLog(), {}); }

}  // namespace http

void LogError(LogSite site, const char* format, ...) {
  va_list values;
  va_start(values, format);
  auto fact = http::FactOf(site, format, values);
  va_end(values);
  if (fact && http::TheLog().size() < http::kMostFacts) http::TheLog().push_back(std::move(*fact));
}

}  // namespace nodelink

// The linker sends the platform's calls here.
extern "C" {

int __wrap_KLIBGetSerialNumber(char* buffer, int size) {
  using namespace nodelink::http;
  return current == nullptr ? -1 : Give(current->serial_number, buffer, size);
}

int __wrap_KLIBHsinfoUserAgentGet(const char*, char* buffer, int size) {
  using namespace nodelink::http;
  return current == nullptr ? -1 : Give(current->user_agent, buffer, size);
}
}
