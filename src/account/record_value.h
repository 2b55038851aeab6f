// How typed values stand in the account record.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <string>

namespace nodelink::record {

inline bool ParseFlag(const std::string& text, bool default_value) {
  return text.empty() ? default_value : text == "yes" || text == "true";
}

// As it is written.
inline std::string ValueText(const std::string& value) { return value; }
inline std::string ValueText(bool value) { return value ? "yes" : "no"; }
inline std::string ValueText(std::int64_t value) { return std::to_string(value); }

// As scanf's "%lld" reads it; a text that does not begin with a number gives the default.
inline std::int64_t ParseInteger(const std::string& text, std::int64_t default_value) {
  char* end = nullptr;
  const std::int64_t value = std::strtoll(text.c_str(), &end, 10);
  return end == text.c_str() ? default_value : value;
}

}  // namespace nodelink::record
