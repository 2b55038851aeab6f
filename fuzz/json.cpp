// JSON texts and their members. Input: the text.
#include "core/json.h"
#include "core/json_value.h"

#include "fuzz/property.h"

namespace {

namespace json = nodelink::json;

void CheckMember(const Json::Value& object, const std::string& name) {
  const Json::Value& member = object[name];
  const bool reachable = name.find('\0') == std::string::npos;
  if (!reachable) return;
  const bool scalar = member.isString() || member.isNumeric() || member.isBool();
  fuzz::Check(json::TextMember(object, name.c_str()).has_value() == scalar,
              "strings, numbers and booleans are texts, nothing else is");
  fuzz::Check(
      json::BoolMember(object, name.c_str()).has_value() == (member.isBool() || member.isNumeric()),
      "booleans and numbers are flags, nothing else is");
  fuzz::Check((json::ObjectMember(object, name.c_str()) != nullptr) == member.isObject(),
              "objects are objects, nothing else is");
}

constexpr char kRareName[] = "\x01 not there";

void CheckMembers(const Json::Value& value) {
  fuzz::Check(
      (value.isObject() && value.isMember(kRareName)) || !json::TextMember(value, kRareName),
      "a missing member gives nothing");
  if (!value.isObject()) {
    fuzz::Check(!json::TextMember(value, "code") && !json::BoolMember(value, "code") &&
                    json::ObjectMember(value, "code") == nullptr,
                "what is no object has no members");
    return;
  }
  for (const std::string& name : value.getMemberNames()) CheckMember(value, name);
}

// One text of a value is enough: a real number may lose its last digit on the first way only.
void CheckWayBack(const Json::Value& value) {
  const std::string text = json::toString(value);
  fuzz::Check(text.find('\n') == std::string::npos, "a value is written as one line");
  Json::Value again;
  fuzz::Check(json::fromString(text, again), "what was written can be read");
  fuzz::Check(json::toString(again) == text, "and is written the same again");
  fuzz::Check(again == value, "and is the value that it was");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(data, data + size);
  Json::Value value = "before";
  if (!json::fromString(text, value)) {
    fuzz::Check(value.isNull(), "a text that cannot be read gives null");
    return 0;
  }
  CheckMembers(value);
  CheckWayBack(value);
  return 0;
}
