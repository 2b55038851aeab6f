// The few pages that people see in a browser.
#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "devcloud/http_message.h"

namespace devcloud {

[[nodiscard]] std::string EscapeHtml(std::string_view text);

// A page with a title and one paragraph. All texts are escaped.
[[nodiscard]] Response MessagePage(int status, const std::string& title, const std::string& text);

struct SignInForm {
  std::string action = {};
  std::vector<std::pair<std::string, std::string>> hidden = {};
  std::string email = {};
  std::string error = {};
};

// The sign-in form. All texts are escaped.
[[nodiscard]] Response SignInPage(int status, const SignInForm& form);

}  // namespace devcloud
