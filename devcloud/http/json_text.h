// JSON in and out, over texts that nobody has looked at yet.
#pragma once

#include <json/value.h>

#include <optional>
#include <string>

#include "devcloud/http/http_message.h"

namespace devcloud {

// Nothing for a text that is not exactly one JSON value, or nested too deeply. Never throws for
// what the text holds.
[[nodiscard]] std::optional<Json::Value> ParseJson(const std::string& text);

// One line of ASCII: whatever bytes the strings hold, the text is valid JSON.
[[nodiscard]] std::string ToCompactText(const Json::Value& value);

// An answer with that status and JSON body.
[[nodiscard]] Response JsonResponse(int status, const Json::Value& value);

// The same with {"error": TEXT}.
[[nodiscard]] Response JsonError(int status, const std::string& text);

}  // namespace devcloud
