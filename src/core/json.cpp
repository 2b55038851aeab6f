#include "core/json.h"

#include <json/reader.h>
#include <json/writer.h>

#include <cstddef>
#include <memory>
#include <string_view>

#include "base/atomic_replace.h"
#include "base/json_text.h"
#include "base/read_file.h"

namespace nodelink::json {
namespace {

constexpr std::size_t kLargestFile = 1024 * 1024;
constexpr std::size_t kMostValues = 10'000;
constexpr mode_t kPrivateFile = 0600;

Json::CharReaderBuilder StrictReader() {
  Json::CharReaderBuilder builder;
  builder["failIfExtra"] = true;
  return builder;
}

// The end of the text that begins behind the quote at `start`: behind its closing quote.
std::size_t EndOfText(std::string_view document, std::size_t start) {
  std::size_t index = start + 1;
  while (index < document.size() && document[index] != '"') {
    index += document[index] == '\\' ? 2 : 1;
  }
  return index + 1;
}

// The end of the comment that begins at `start`; behind the one sign when it is none.
std::size_t EndOfComment(std::string_view document, std::size_t start) {
  const std::string_view begin = document.substr(start, 2);
  if (begin == "//") return document.find_first_of("\r\n", start);
  const std::size_t end = begin == "/*" ? document.find("*/", start + 2) : start - 1;
  return end == document.npos ? end : end + 2;
}

// In memory a value takes a hundred times the byte that it may be in the text. Texts and comments
// may hold any sign.
bool HasTooManyValues(std::string_view document) {
  std::size_t values = 0;
  for (std::size_t index = 0; index < document.size();) {
    switch (document[index]) {
      case '"': index = EndOfText(document, index); break;
      case '/': index = EndOfComment(document, index); break;
      case ',':
      case '[':
      case '{': ++values; [[fallthrough]];
      default: ++index;
    }
  }
  return values > kMostValues;
}

}  // namespace

bool fromString(const std::string& text, Json::Value& value) {
  value = Json::Value();
  if (text.find('\0') != std::string::npos) {
    return false;  // jsoncpp would take it for the end of the text
  }
  if (HasTooManyValues(text)) return false;
  try {
    const std::unique_ptr<Json::CharReader> reader(StrictReader().newCharReader());
    if (reader->parse(text.data(), text.data() + text.size(), &value, nullptr)) return true;
  } catch (const Json::Exception&) {
    // jsoncpp throws where other bad input makes it return false: nesting past its stack limit.
  }
  value = Json::Value();
  return false;
}

bool fromFile(const std::string& path, Json::Value& value) {
  std::string text;
  if (!base::ReadFile(path, kLargestFile, text)) {
    value = Json::Value();
    return false;
  }
  return fromString(text, value);
}

std::string toString(const Json::Value& value) { return base::JsonText(value); }

bool toFile(const Json::Value& value, const std::string& path) {
  const std::string text = base::JsonText(value, "  ", kLargestFile) + "\n";
  if (text.size() > kLargestFile || HasTooManyValues(text)) return false;
  return base::AtomicReplace(path, text, kPrivateFile);
}

}  // namespace nodelink::json
