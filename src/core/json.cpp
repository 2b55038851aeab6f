#include "core/json.h"

#include <json/reader.h>

#include <algorithm>
#include <cstddef>
#include <memory>

#include "base/atomic_replace.h"
#include "base/json_text.h"
#include "base/read_file.h"

namespace nodelink::json {
namespace {

constexpr std::size_t kLargestFile = 1024 * 1024;
constexpr std::ptrdiff_t kMostValues = 10'000;
constexpr mode_t kPrivateFile = 0600;

Json::CharReaderBuilder StrictReader() {
  Json::CharReaderBuilder builder;
  builder["failIfExtra"] = true;
  return builder;
}

// In memory a value takes a hundred times the byte that it may be in the text. The signs are
// counted inside of texts and comments too: a real document is far below the limit either way.
bool HasTooManyValues(const std::string& text) {
  return std::count_if(text.begin(), text.end(),
                       [](char c) { return c == ',' || c == '[' || c == '{'; }) > kMostValues;
}

const Json::Value* Member(const Json::Value& object, const char* name) {
  return object.isObject() ? object.find(name, name + std::char_traits<char>::length(name))
                           : nullptr;
}

}  // namespace

bool fromString(const std::string& text, Json::Value& value) {
  value = Json::Value();
  if (text.find('\0') != std::string::npos) {
    return false;  // jsoncpp would take it for the end of the text
  }
  if (HasTooManyValues(text)) {
    return false;
  }
  try {
    const std::unique_ptr<Json::CharReader> reader(StrictReader().newCharReader());
    if (reader->parse(text.data(), text.data() + text.size(), &value, nullptr)) {
      return true;
    }
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
  return base::AtomicReplace(path, base::JsonText(value, "  ") + "\n", kPrivateFile);
}

std::optional<std::string> TextMember(const Json::Value& object, const char* name) {
  const Json::Value* member = Member(object, name);
  if (member == nullptr || !(member->isString() || member->isNumeric() || member->isBool())) {
    return std::nullopt;
  }
  return member->asString();
}

std::optional<bool> BoolMember(const Json::Value& object, const char* name) {
  const Json::Value* member = Member(object, name);
  if (member == nullptr || !(member->isBool() || member->isNumeric())) {
    return std::nullopt;
  }
  return member->asBool();
}

const Json::Value* ObjectMember(const Json::Value& object, const char* name) {
  const Json::Value* member = Member(object, name);
  return member != nullptr && member->isObject() ? member : nullptr;
}

}  // namespace nodelink::json
