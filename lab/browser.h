// A person at a browser.
#pragma once

#include <string>

namespace lab {

// Opens the sign-in address, fills in the form and sends it; the address that the browser is then
// sent to, "" when the sign-in is refused.
std::string SignIn(const std::string& address, const std::string& email,
                   const std::string& password);

}  // namespace lab
