// A browser and the person in front of it: follows redirects, keeps cookies, fills in the server's
// own sign-in and consent pages.
#pragma once

#include <string>
#include <utility>

namespace interop {

class Browser {
 public:
  // One that is sent to `goal` (an address without query) leaves the server: the client is there.
  explicit Browser(std::string goal) : goal_(std::move(goal)) {}

  // Opens `address`, signs in as `account`, agrees to what is asked, and gives the address that the
  // browser is sent back to. Throws std::runtime_error when the server leads nowhere.
  std::string SignIn(const std::string& address, const std::string& account);

  // The same, but cancels on the first page.
  std::string Cancel(const std::string& address);

 private:
  struct Page {
    std::string body;
    std::string redirect;  // the whole address; empty when the page is one to look at
  };

  bool IsBack(const Page& page) const;
  Page Open(const std::string& address);
  Page Submit(const Page& page, const std::string& account);
  Page Follow(const Page& page);

  std::string goal_;
};

}  // namespace interop
