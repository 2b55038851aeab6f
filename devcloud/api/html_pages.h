// The few pages that people see in a browser on their way through a sign-in.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "devcloud/http/http_message.h"

namespace devcloud {

// A page with a title and one paragraph.
[[nodiscard]] Response MessagePage(int status, const std::string& title, const std::string& text);

struct SignInForm {
  std::string action = {};
  std::vector<std::pair<std::string, std::string>> hidden = {};
  std::string email = {};
  std::string error = {};
};

[[nodiscard]] Response SignInPage(int status, const SignInForm& form);

}  // namespace devcloud
