#include "fuzz/property.h"

#include <cstdio>
#include <cstdlib>

namespace fuzz {
namespace {

// The targets write the appliance's own files: outside the sandbox they would harm the machine.
[[maybe_unused]] const bool kInLab = [] {
  if (std::getenv("LAB_INSIDE") == nullptr) {
    std::fputs("run this program with lab/run\n", stderr);
    std::_Exit(2);
  }
  return true;
}();

}  // namespace

void Check(bool kept, const char* promise) {
  if (!kept) {
    std::fprintf(stderr, "broken promise: %s\n", promise);
    std::abort();
  }
}

std::vector<std::string> Parts(const std::uint8_t* data, std::size_t size, std::size_t count) {
  std::string rest(data, data + size);
  std::vector<std::string> parts(count);
  for (std::size_t i = 0; i + 1 < count; ++i) {
    const std::size_t end = rest.find('\0');
    parts[i] = rest.substr(0, end);
    rest.erase(0, end == std::string::npos ? end : end + 1);
  }
  parts.back() = rest;
  return parts;
}

}  // namespace fuzz
