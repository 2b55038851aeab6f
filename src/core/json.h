// JSON texts and files. Nothing here throws on bad input: servers and files are not trusted.
#pragma once

#include <json/value.h>

#include <string>

namespace nodelink::json {

// Parses the whole of `text` into `value`. False, with `value` null, when it is not one JSON value,
// or is nested too deep or has too many members and items to be read in little memory.
[[nodiscard]] bool fromString(const std::string& text, Json::Value& value);

// Parses the whole file `path`; false also when it cannot be read or is larger than 1 MiB.
[[nodiscard]] bool fromFile(const std::string& path, Json::Value& value);

// One line without spaces, UTF-8 as it is, no line end.
std::string toString(const Json::Value& value);

// Replaces the file `path` by the indented text of `value`: atomically, mode 0600. False, with the
// old file as it was, when that fails or fromFile would not read the new one.
[[nodiscard]] bool toFile(const Json::Value& value, const std::string& path);

}  // namespace nodelink::json
