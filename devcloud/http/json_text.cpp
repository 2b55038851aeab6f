#include "devcloud/http/json_text.h"

#include <json/reader.h>
#include <json/writer.h>

#include <memory>

namespace devcloud {

std::optional<Json::Value> ParseJson(const std::string& text) {
  constexpr int kDeepest = 64;
  Json::CharReaderBuilder builder;
  Json::CharReaderBuilder::strictMode(&builder.settings_);
  // Any value is JSON; what the text must be is for the caller to say.
  builder["strictRoot"] = false;
  builder["stackLimit"] = kDeepest;
  const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  Json::Value value;
  try {
    if (!reader->parse(text.data(), text.data() + text.size(), &value, nullptr)) {
      return std::nullopt;
    }
  } catch (const Json::Exception&) {
    return std::nullopt;
  }
  return value;
}

std::string ToCompactText(const Json::Value& value) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  builder["emitUTF8"] = false;
  return Json::writeString(builder, value);
}

Response JsonResponse(int status, const Json::Value& value) {
  return {.status = status,
          .headers = {{"Content-Type", "application/json"}, {"Cache-Control", "no-store"}},
          .body = ToCompactText(value)};
}

Response JsonError(int status, const std::string& text) {
  Json::Value body(Json::objectValue);
  body["error"] = text;
  return JsonResponse(status, body);
}

}  // namespace devcloud
