// Forms as HTML pages and HTTP clients send them: application/x-www-form-urlencoded.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "devcloud/http/http_message.h"

namespace devcloud {

// The pairs of a form in the order in which they came; a name can come more than once.
class Form {
 public:
  Form() = default;
  explicit Form(std::vector<std::pair<std::string, std::string>> pairs);

  // Decodes "a=b&c=d" ('+' is a space, "%26" an ampersand). Nothing when a percent sign is not
  // followed by two hex digits, or when a decoded text holds a NUL.
  [[nodiscard]] static std::optional<Form> Parse(std::string_view text);

  // The value of the first pair of that name, or null.
  [[nodiscard]] const std::string* Find(std::string_view name) const;
  // As Find, with an empty text for an absent name.
  [[nodiscard]] std::string Get(std::string_view name) const;
  // The values of all pairs of that name, in order.
  [[nodiscard]] std::vector<std::string> GetAll(std::string_view name) const;

  [[nodiscard]] const std::vector<std::pair<std::string, std::string>>& pairs() const {
    return pairs_;
  }

 private:
  std::vector<std::pair<std::string, std::string>> pairs_;
};

// The form of a request, nothing unless it says that it is one and parses.
[[nodiscard]] std::optional<Form> ReadForm(const Request& request);

// Everything but letters, digits and "-._~" becomes %XX.
[[nodiscard]] std::string PercentEncode(std::string_view text);

// `url` with "name=value" behind '?' or '&', encoded, for each pair.
[[nodiscard]] std::string AppendQuery(
    std::string url, const std::vector<std::pair<std::string, std::string>>& pairs);

}  // namespace devcloud
