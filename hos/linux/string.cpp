#include "klibc/string.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "hos/linux/error.h"

namespace hos_linux {
namespace {

constexpr char kWhiteSpace[] = " \t\r\n\v\f";

// Grows by half at least, so that a long text of many small pieces is not copied for each.
bool Grow(char** buffer, std::size_t* size, std::size_t needed) {
  if (needed <= *size) return true;
  const std::size_t new_size = std::max(needed, *size + *size / 2);
  auto* grown = static_cast<char*>(std::realloc(*buffer, new_size));
  if (grown == nullptr) return False(ENOMEM);
  *buffer = grown;
  *size = new_size;
  return true;
}

}  // namespace
}  // namespace hos_linux

extern "C" {

int KLIBCStrCat(char** buffer, size_t* size, const char* text) {
  if (buffer == nullptr || *buffer == nullptr || size == nullptr || text == nullptr) {
    return hos_linux::MinusOne(hos_linux::kBadArgument);
  }
  const std::size_t length = strnlen(*buffer, *size);
  if (length == *size) return hos_linux::MinusOne(hos_linux::kBadArgument);
  const std::size_t added = std::strlen(text);
  if (!hos_linux::Grow(buffer, size, length + added + 1)) return -1;
  std::memcpy(*buffer + length, text, added + 1);
  return 0;
}

int KLIBCStrTrimSpace(char* text) {
  if (text == nullptr) return hos_linux::MinusOne(hos_linux::kBadArgument);
  const std::string_view whole(text);
  const std::size_t first = std::min(whole.find_first_not_of(hos_linux::kWhiteSpace), whole.size());
  const std::size_t length = whole.find_last_not_of(hos_linux::kWhiteSpace) + 1 - first;
  const std::size_t kept = first == whole.size() ? 0 : length;
  std::memmove(text, text + first, kept);
  text[kept] = '\0';
  return static_cast<int>(kept);
}
}
