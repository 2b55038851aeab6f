// Prints an access token of the linked account that is valid now, for a program that calls the
// vendor's services: renewed when it has expired, and obtained anew when the server refuses to.
#include <nodelink/core/error_code.h>
#include <nodelink/core/zomi_exception.h>
#include <nodelink/pkce/account_pkce_service.h>

#include <exception>
#include <iostream>

int main() {
  try {
    std::cout << nodelink::AccountPkceServiceImpl().GetAccessTokenWithRescue() << '\n';
    return 0;
  } catch (const nodelink::ZomiException& failure) {
    std::cerr << "access_token: " << nodelink::ErrorCodeToText(failure.code()) << '\n';
  } catch (const std::exception& failure) {
    std::cerr << "access_token: " << failure.what() << '\n';
  }
  return 1;
}
