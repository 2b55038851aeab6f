// printf-style formatting into a string.
#pragma once

#include <cstdio>
#include <string>

#include "core/log.h"

namespace nodelink {
namespace internal {

inline const char* PrintfValue(const std::string& text) { return text.c_str(); }

template <typename Value>
const Value& PrintfValue(const Value& value) {
  return value;
}

// This function's place in the log is fixed: administrators' filters know it.
inline constexpr LogSite kFormatStringSite{"include/internal/string_utils", 17};

}  // namespace internal

// Formats `values` by the printf format `format`, at any length; a std::string value stands for
// "%s". A formatting error is logged and gives the empty string. Never throws: without memory for
// the result the process ends.
template <typename... Values>
std::string FormatString(const std::string& format, const Values&... values) noexcept {
  static_assert(sizeof...(Values) > 0, "a text without values needs no formatting");
  const int length = std::snprintf(nullptr, 0, format.c_str(), internal::PrintfValue(values)...);
  if (length + 1 < 1) {
    LogError(internal::kFormatStringSite, "Failed to format: %s", format.c_str());
    return "";
  }
  std::string text(static_cast<std::size_t>(length) + 1, '\0');
  std::snprintf(text.data(), text.size(), format.c_str(), internal::PrintfValue(values)...);
  text.pop_back();
  return text;
}

}  // namespace nodelink
