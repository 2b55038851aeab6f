// A password that leaves no trace in memory, and is never in a core file or swapped out.
#pragma once

#include <string>

namespace nodelink_login {

class Password {
 public:
  // Asks on the terminal without echo, or takes one line of standard input when that is no
  // terminal. At most 4095 characters; empty when there is none.
  static Password Read();

  Password(Password&& other) noexcept;
  Password(const Password&) = delete;
  Password& operator=(const Password&) = delete;
  ~Password();  // overwrites it

  const std::string& text() const { return text_; }

 private:
  Password();

  std::string text_;
};

}  // namespace nodelink_login
