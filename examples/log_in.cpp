// Links this device to an account: log_in EMAIL, with the password as one line of standard input.
#include <nodelink/account/account_service.h>
#include <nodelink/core/error_code.h>
#include <nodelink/core/zomi_exception.h>

#include <iostream>
#include <string>

int main(int argc, char** argv) {
  if (argc != 2) {
    std::cerr << "Usage: log_in EMAIL\n";
    return 2;
  }
  std::string password;
  std::getline(std::cin, password);
  try {
    nodelink::AccountService().login(argv[1], password);
    std::cout << "This device is linked to " << argv[1] << '\n';
    return 0;
  } catch (const nodelink::ZomiException& failure) {
    std::cerr << "log_in: " << nodelink::ErrorCodeToText(failure.code()) << '\n';
    return 1;
  }
}
