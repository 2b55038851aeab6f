// JSON texts, files and members. Nothing here throws on bad input: servers and files are not
// trusted.
#pragma once

#include <json/value.h>

#include <cstddef>
#include <optional>
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

// As Json::Value::toStyledString, cut at about `limit` bytes, and no more is made: indentation can
// make the text a thousand times as long as the one that `value` was read from.
std::string StyledText(const Json::Value& value, std::size_t limit);

// The member `name` of `object` as text: a string, the text of a number or boolean, "" for null.
// Nothing when `object` is no object, or the member is missing, an object or a list.
std::optional<std::string> TextMember(const Json::Value& object, const char* name);

// The same of a text that must say something: nothing also when it is null or empty.
std::optional<std::string> FilledTextMember(const Json::Value& object, const char* name);

// The member as a boolean: a boolean, or a number (true unless 0), or null (false). Nothing in any
// other case.
std::optional<bool> BoolMember(const Json::Value& object, const char* name);

// The member if it is an object, or null, which is read as an empty one; else null.
const Json::Value* ObjectMember(const Json::Value& object, const char* name);

}  // namespace nodelink::json
