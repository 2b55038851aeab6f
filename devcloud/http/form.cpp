#include "devcloud/http/form.h"

#include <algorithm>

namespace devcloud {
namespace {

int HexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// The byte behind the percent sign at `at`, or -1.
int EscapedByte(std::string_view text, std::size_t at) {
  if (at + 2 >= text.size()) return -1;
  const int high = HexValue(text[at + 1]);
  const int low = HexValue(text[at + 2]);
  return high < 0 || low < 0 ? -1 : high * 16 + low;
}

std::optional<std::string> Decode(std::string_view text) {
  std::string decoded;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '%') {
      const int byte = EscapedByte(text, i);
      if (byte <= 0) return std::nullopt;
      decoded += static_cast<char>(byte);
      i += 2;
    } else if (text[i] == '\0') {
      return std::nullopt;
    } else {
      decoded += text[i] == '+' ? ' ' : text[i];
    }
  }
  return decoded;
}

bool IsUnreserved(char c) {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '-' ||
         c == '.' || c == '_' || c == '~';
}

}  // namespace

Form::Form(std::vector<std::pair<std::string, std::string>> pairs) : pairs_(std::move(pairs)) {}

std::optional<Form> Form::Parse(std::string_view text) {
  Form form;
  while (!text.empty()) {
    const std::string_view pair = text.substr(0, text.find('&'));
    text.remove_prefix(std::min(pair.size() + 1, text.size()));
    if (pair.empty()) continue;
    const std::size_t equals = std::min(pair.find('='), pair.size());
    auto name = Decode(pair.substr(0, equals));
    auto value = Decode(pair.substr(std::min(equals + 1, pair.size())));
    if (!name || !value) return std::nullopt;
    form.pairs_.emplace_back(std::move(*name), std::move(*value));
  }
  return form;
}

const std::string* Form::Find(std::string_view name) const {
  const auto found = std::find_if(pairs_.begin(), pairs_.end(),
                                  [name](const auto& pair) { return pair.first == name; });
  return found == pairs_.end() ? nullptr : &found->second;
}

std::string Form::Get(std::string_view name) const {
  const std::string* value = Find(name);
  return value == nullptr ? std::string() : *value;
}

std::vector<std::string> Form::GetAll(std::string_view name) const {
  std::vector<std::string> values;
  for (const auto& [key, value] : pairs_) {
    if (key == name) values.push_back(value);
  }
  return values;
}

std::optional<Form> ReadForm(const Request& request) {
  const std::string type = request.HeaderOr("Content-Type");
  if (!EqualsIgnoringCase(type.substr(0, type.find(';')), "application/x-www-form-urlencoded")) {
    return std::nullopt;
  }
  return Form::Parse(request.body);
}

std::string PercentEncode(std::string_view text) {
  constexpr std::string_view kDigits = "0123456789ABCDEF";
  std::string encoded;
  for (const char c : text) {
    if (IsUnreserved(c)) {
      encoded += c;
      continue;
    }
    const auto byte = static_cast<unsigned char>(c);
    encoded += '%';
    encoded += kDigits[byte >> 4U];
    encoded += kDigits[byte & 0xFU];
  }
  return encoded;
}

std::string AppendQuery(std::string url,
                        const std::vector<std::pair<std::string, std::string>>& pairs) {
  char separator = url.find('?') == std::string::npos ? '?' : '&';
  for (const auto& [name, value] : pairs) {
    url += separator + PercentEncode(name) + "=" + PercentEncode(value);
    separator = '&';
  }
  return url;
}

}  // namespace devcloud
