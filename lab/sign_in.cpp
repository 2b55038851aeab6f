// lab-sign-in: a person at a browser, for scripts. Prints the address that the browser is sent to.
#include <cstdio>

#include "lab/browser.h"

int main(int argc, char** argv) {
  if (argc != 4) {
    std::fputs("Usage: lab-sign-in ADDRESS EMAIL PASSWORD\n", stderr);
    return 2;
  }
  const std::string back = lab::SignIn(argv[1], argv[2], argv[3]);
  std::puts(back.c_str());
  return back.empty() ? 1 : 0;
}
