#include "devcloud/http/json_fields.h"

#include "devcloud/http/json_text.h"

namespace devcloud {

JsonFields::JsonFields(const std::string& text) {
  const std::optional<Json::Value> value = ParseJson(text);
  if (!value || !value->isObject()) throw BadInput("the body must be one JSON object");
  object_ = *value;
}

const Json::Value* JsonFields::Find(const std::string& name) {
  known_.insert(name);
  return object_.isMember(name) ? &object_[name] : nullptr;
}

void JsonFields::Text(const std::string& name, std::string& target) {
  const Json::Value* value = Find(name);
  if (value == nullptr) return;
  if (!value->isString()) throw BadInput(name + " must be a string");
  target = value->asString();
}

void JsonFields::OptionalText(const std::string& name, std::optional<std::string>& target) {
  const Json::Value* value = Find(name);
  if (value == nullptr) return;
  if (!value->isString() && !value->isNull()) throw BadInput(name + " must be a string or null");
  target.reset();
  if (value->isString()) target = value->asString();
}

void JsonFields::Flag(const std::string& name, bool& target) {
  const Json::Value* value = Find(name);
  if (value == nullptr) return;
  if (!value->isBool()) throw BadInput(name + " must be true or false");
  target = value->asBool();
}

void JsonFields::Number(const std::string& name, std::int64_t lowest, std::int64_t highest,
                        std::int64_t& target) {
  const Json::Value* value = Find(name);
  if (value == nullptr) return;
  if (!value->isInt64() || value->asInt64() < lowest || value->asInt64() > highest) {
    throw BadInput(name + " must be a whole number from " + std::to_string(lowest) + " to " +
                   std::to_string(highest));
  }
  target = value->asInt64();
}

void JsonFields::Flags(const std::string& name, std::map<std::string, bool>& target) {
  const Json::Value* value = Find(name);
  if (value == nullptr) return;
  if (!value->isObject()) throw BadInput(name + " must be an object of names to true or false");
  std::map<std::string, bool> flags;
  for (const std::string& key : value->getMemberNames()) {
    if (!(*value)[key].isBool()) throw BadInput(name + " must hold true or false only");
    flags[key] = (*value)[key].asBool();
  }
  target = std::move(flags);
}

void JsonFields::Texts(const std::string& name, std::vector<std::string>& target) {
  const Json::Value* value = Find(name);
  if (value == nullptr) return;
  if (!value->isArray()) throw BadInput(name + " must be a list of strings");
  std::vector<std::string> texts;
  for (const Json::Value& text : *value) {
    if (!text.isString()) throw BadInput(name + " must be a list of strings");
    texts.push_back(text.asString());
  }
  target = std::move(texts);
}

const Json::Value& JsonFields::Raw(const std::string& name) {
  const Json::Value* value = Find(name);
  return value == nullptr ? Json::Value::nullSingleton() : *value;
}

void JsonFields::Finish() const {
  for (const std::string& name : object_.getMemberNames()) {
    if (known_.count(name) == 0) throw BadInput("unknown member " + name);
  }
}

}  // namespace devcloud
