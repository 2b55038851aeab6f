// What the flows read in a JSON value. Nothing here throws: a member of the wrong type is missing.
#pragma once

#include <json/value.h>

#include <cstddef>
#include <optional>
#include <string>

namespace nodelink::json {

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
