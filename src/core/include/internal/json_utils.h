// Parsing and saving JSON with the object layer's log lines and exceptions.
#pragma once

#include <json/value.h>

#include <string>

namespace nodelink {

// Resets `value` and parses `text` into it. Success says nothing about the shape of the value.
// A text that is not JSON is logged whole; throws ZomiException with kWrongJsonFormat.
void ParseJson(const std::string& text, Json::Value& value);

// Writes `value` to the file `path`, replacing it atomically. Throws ZomiException with
// kWrongJsonFormat when it cannot be written; the old file then stands.
void SaveJson(const std::string& path, const Json::Value& value);

}  // namespace nodelink
