#include "lab/browser.h"

#include <regex>
#include <vector>

#include "lab/process.h"

namespace lab {
namespace {

constexpr char kCookies[] = "/tmp/browser.cookies";

std::string Unescape(std::string text) {
  for (const auto& [escaped, plain] :
       {std::pair{"&lt;", "<"}, {"&gt;", ">"}, {"&quot;", "\""}, {"&#39;", "'"}, {"&amp;", "&"}}) {
    text = std::regex_replace(text, std::regex(escaped), plain);
  }
  return text;
}

// curl's arguments for the hidden fields of the form on `page`.
std::vector<std::string> HiddenFields(const std::string& page) {
  const std::regex field("type=\"hidden\" name=\"([^\"]*)\" value=\"([^\"]*)\"");
  std::vector<std::string> arguments;
  for (std::sregex_iterator match(page.begin(), page.end(), field), end; match != end; ++match) {
    arguments.insert(arguments.end(),
                     {"--data-urlencode", (*match)[1].str() + "=" + Unescape((*match)[2])});
  }
  return arguments;
}

}  // namespace

std::string SignIn(const std::string& address, const std::string& email,
                   const std::string& password) {
  const std::string page =
      RunProcess({"curl", "--silent", "--fail", "--cookie-jar", kCookies, address}).out;
  std::vector<std::string> post = {"curl",     "--silent", "--output",    "/dev/null",
                                   "--cookie", kCookies,   "--write-out", "%{redirect_url}"};
  for (const std::string& argument : HiddenFields(page)) post.push_back(argument);
  post.insert(post.end(),
              {"--data-urlencode", "email=" + email, "--data-urlencode", "password=" + password,
               "--data", "choice=sign_in", address.substr(0, address.find('?'))});
  return RunProcess(post).out;
}

}  // namespace lab
