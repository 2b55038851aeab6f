#include "tests/interop/browser.h"

#include <regex>
#include <stdexcept>
#include <utility>
#include <vector>

#include "lab/process.h"

namespace interop {
namespace {

constexpr char kCookies[] = "/tmp/browser.cookies";
constexpr int kMostPages = 20;

// Runs curl; the redirect's address is the last line of its output.
std::string Curl(const std::vector<std::string>& words) {
  std::vector<std::string> command = {"curl",     "--silent", "--show-error", "--max-time", "30",
                                      "--cookie", kCookies,   "--cookie-jar", kCookies};
  command.insert(command.end(), {"--write-out", "\n%{redirect_url}"});
  command.insert(command.end(), words.begin(), words.end());
  const lab::ProcessResult result = lab::RunProcess(command);
  if (result.exit_status != 0) throw std::runtime_error(result.err);
  return result.out;
}

// What stands in the place of the parentheses of `pattern`.
std::string Find(const std::string& page, const char* pattern) {
  std::smatch match;
  if (!std::regex_search(page, match, std::regex(pattern))) {
    throw std::runtime_error(std::string("no ") + pattern + " on the page:\n" + page);
  }
  return match[1];
}

}  // namespace

bool Browser::IsBack(const Page& page) const { return page.redirect.rfind(goal_ + "?", 0) == 0; }

Browser::Page Browser::Open(const std::string& address) {
  const std::string output = Curl({address});
  const std::size_t end = output.rfind('\n');
  return Follow({output.substr(0, end), output.substr(end + 1)});
}

Browser::Page Browser::Follow(const Page& page) {
  return page.redirect.empty() || IsBack(page) ? page : Open(page.redirect);
}

Browser::Page Browser::Submit(const Page& page, const std::string& account) {
  const std::string action = Find(page.body, "<form[^>]* action=\"([^\"]+)\"");
  const std::string prompt = Find(page.body, "name=\"prompt\" value=\"([a-z]+)\"");
  const std::string output = Curl({"--data-urlencode", "prompt=" + prompt, "--data-urlencode",
                                   "login=" + account, "--data-urlencode", "password=any", action});
  const std::size_t end = output.rfind('\n');
  return Follow({output.substr(0, end), output.substr(end + 1)});
}

std::string Browser::SignIn(const std::string& address, const std::string& account) {
  Page page = Open(address);
  for (int count = 0; !IsBack(page); ++count) {
    if (count == kMostPages) throw std::runtime_error("the sign-in does not end");
    page = Submit(page, account);
  }
  return page.redirect;
}

std::string Browser::Cancel(const std::string& address) {
  const Page page = Open(address);
  return Open(Find(page.body, "<a href=\"([^\"]+/abort)\"")).redirect;
}

}  // namespace interop
