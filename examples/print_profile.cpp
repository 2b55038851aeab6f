// Prints what the device has stored of its account's profile; asks no server.
#include <nodelink/account/user.h>
#include <nodelink/core/error_code.h>
#include <nodelink/core/zomi_exception.h>

#include <ctime>
#include <iostream>

namespace {

void PrintProfile(const nodelink::User& user) {
  namespace record = nodelink::record;
  const std::time_t queried = user.Get(record::kLastQueryTime);
  std::cout << "account   " << user.Get(record::kZomiId) << '\n'
            << "name      " << user.Get(record::kFullName) << '\n'
            << "country   " << user.Get(record::kCountry) << '\n'
            << "language  " << user.Get(record::kNotifyLanguage) << '\n'
            << "news      " << (user.Get(record::kEnews) ? "yes" : "no") << '\n'
            << "as of     " << std::ctime(&queried);
}

}  // namespace

int main() {
  try {
    const nodelink::User user;
    if (!user.HasAccount()) {
      std::cerr << "print_profile: this device is not linked to an account\n";
      return 1;
    }
    PrintProfile(user);
    return 0;
  } catch (const nodelink::ZomiException& failure) {
    std::cerr << "print_profile: " << nodelink::ErrorCodeToText(failure.code()) << '\n';
    return 1;
  }
}
