#include "devcloud/console/masked_fields.h"

#include <algorithm>

#include "devcloud/http/json_text.h"

namespace devcloud::console {
namespace {

constexpr std::size_t kMostFields = 60;
// So long a secret is not given away by its beginning, by which it can be recognised.
constexpr std::size_t kLongSecret = 32;
constexpr std::size_t kShownOfSecret = 4;

constexpr std::array kHarmless{
    // of forms and queries
    "choice", "client_id", "code_challenge_method", "grant_type", "hs_sn", "id", "mac",
    "post_logout_redirect_uri", "prompt", "redirect_uri", "redirect_url", "response_type", "scope",
    "scopes[]", "serial_no", "audience",
    // of the profile
    "country", "email", "full_name", "notify_language", "timezone",
    // of answers
    "error", "error_description", "report_cron_timestring", "token_type", "user_id",
    // of heads
    "accept", "connection", "content-length", "content-type", "expect", "host", "user-agent",
    "x-client-id"};

bool IsHarmless(const std::string& name, Direction direction) {
  // In a form it is an authorization code, in an answer the status word.
  if (name == "code") return direction == Direction::kAnswer;
  return std::any_of(kHarmless.begin(), kHarmless.end(),
                     [&name](const char* harmless) { return EqualsIgnoringCase(name, harmless); });
}

void Flatten(const std::string& name, const Json::Value& value, Direction direction,
             Fields& fields) {
  if (fields.size() > kMostFields) return;
  if (value.isObject()) {
    for (const std::string& member : value.getMemberNames()) {
      Flatten(member, value[member], direction, fields);
    }
  } else if (value.isArray()) {
    for (const Json::Value& element : value) Flatten(name, element, direction, fields);
  } else {
    fields.emplace_back(
        name, value.isString() ? Masked(name, value.asString(), direction) : ToCompactText(value));
  }
}

Fields FieldsOf(const Form& form, Direction direction) {
  Fields fields;
  for (const auto& [name, value] : form.pairs()) {
    if (fields.size() > kMostFields) break;
    fields.emplace_back(name, Masked(name, value, direction));
  }
  return fields;
}

// The names come from outside as well.
Fields Limited(Fields fields) {
  for (auto& [name, value] : fields) name = Cut(name);
  if (fields.size() > kMostFields) {
    fields.resize(kMostFields);
    fields.emplace_back("", "… and more");
  }
  return fields;
}

}  // namespace

std::string Masked(const std::string& name, const std::string& value, Direction direction) {
  if (value.empty() || IsHarmless(name, direction)) return Cut(value);
  const std::string start = value.size() < kLongSecret ? "" : value.substr(0, kShownOfSecret);
  return start + "… (" + std::to_string(value.size()) + " bytes)";
}

Fields MaskedHeaders(const std::vector<Header>& headers) {
  Fields fields;
  for (const Header& header : headers) {
    fields.emplace_back(header.name, Masked(header.name, header.value));
  }
  return Limited(std::move(fields));
}

Fields MaskedFields(const std::string& text, Direction direction) {
  if (text.empty()) return {};
  const std::optional<Json::Value> json = ParseJson(text);
  if (json && json->isObject()) {
    Fields fields;
    Flatten("", *json, direction, fields);
    return Limited(std::move(fields));
  }
  const std::optional<Form> form = Form::Parse(text);
  if (form && text.find('=') != std::string::npos && text.find('<') == std::string::npos) {
    return Limited(FieldsOf(*form, direction));
  }
  return {{"", std::to_string(text.size()) + " bytes of something else"}};
}

}  // namespace devcloud::console
