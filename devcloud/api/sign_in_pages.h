// What a browser is answered with on its way through a sign-in.
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

// Sends the browser to `uri` with these parameters added to its query.
[[nodiscard]] Response Redirect(const std::string& uri,
                                const std::vector<std::pair<std::string, std::string>>& parameters);

}  // namespace devcloud
