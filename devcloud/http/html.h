// Writes HTML so that a text from outside cannot become markup: only constants of this program are
// taken as they are, every std::string is escaped.
//
//   Html html;
//   html << "<p class=\"note\">" << text << "</p>";
#pragma once

#include <concepts>
#include <string>
#include <string_view>

#include "devcloud/http/http_message.h"

namespace devcloud {

[[nodiscard]] std::string EscapeHtml(std::string_view text);

struct Markup {
  template <std::size_t N>
  consteval Markup(const char (&constant)[N])  // NOLINT(*-avoid-c-arrays): what a literal is
      : text(constant, N - 1) {}
  std::string_view text;
};

class Html {
 public:
  Html& operator<<(Markup markup);
  Html& operator<<(const Html& html);
  template <std::same_as<std::string> Text>  // no conversions: a literal is markup
  Html& operator<<(const Text& text) {
    text_ += EscapeHtml(text);
    return *this;
  }

  [[nodiscard]] const std::string& text() const { return text_; }

 private:
  std::string text_;
};

// An answer that is a whole page: `body` goes between the body tags. Browsers keep it to
// themselves, show it in no frame and load nothing for it.
[[nodiscard]] Response HtmlResponse(int status, const std::string& title, const Html& body);

[[nodiscard]] Html HiddenInput(const std::string& name, const std::string& value);

}  // namespace devcloud
