#include "core/json_value.h"

#include <json/writer.h>

#include "base/json_text.h"

namespace nodelink::json {
namespace {

const Json::Value* Member(const Json::Value& object, const char* name) {
  return object.isObject() ? object.find(name, name + std::char_traits<char>::length(name))
                           : nullptr;
}

}  // namespace

std::string StyledText(const Json::Value& value, std::size_t limit) {
  const std::string text = value.hasComment(Json::commentBefore) ? "\n" : "";
  return text + base::JsonText(Json::StreamWriterBuilder(), value, limit) + "\n";
}

std::optional<std::string> TextMember(const Json::Value& object, const char* name) {
  const Json::Value* member = Member(object, name);
  if (member == nullptr || member->isObject() || member->isArray()) return std::nullopt;
  return member->asString();
}

std::optional<std::string> FilledTextMember(const Json::Value& object, const char* name) {
  auto text = TextMember(object, name);
  return text && !text->empty() ? text : std::nullopt;
}

std::optional<bool> BoolMember(const Json::Value& object, const char* name) {
  const Json::Value* member = Member(object, name);
  if (member == nullptr || !(member->isBool() || member->isNumeric() || member->isNull())) {
    return std::nullopt;
  }
  return member->asBool();
}

const Json::Value* ObjectMember(const Json::Value& object, const char* name) {
  const Json::Value* member = Member(object, name);
  return member != nullptr && (member->isObject() || member->isNull()) ? member : nullptr;
}

}  // namespace nodelink::json
