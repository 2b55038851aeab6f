// nodelink-login: the administrator's way to link this device to an account.
#include <malloc.h>

#include <cstdio>
#include <iostream>
#include <string>
#include <string_view>

#include "account/account_service.h"
#include "account/user.h"
#include "core/error_code.h"
#include "core/memory.h"
#include "core/process.h"
#include "core/zomi_exception.h"
#include "pkce/account_pkce_service.h"
#include "pkce/pkce_config.h"
#include "tools/password.h"
#include "tools/sign_in.h"

namespace {

using namespace nodelink_login;

constexpr char kUsage[] =
    "Usage: nodelink-login --password EMAIL\n"
    "       nodelink-login --browser\n"
    "\n"
    "Links this device to an account.\n"
    "\n"
    "  --password EMAIL   by the account's password: asked for on the terminal, or read as one\n"
    "                     line from standard input when that is no terminal\n"
    "  --browser          by signing in with a browser: prints the address to open, then reads\n"
    "                     the address that the browser was sent back to, or the code in it\n"
    "  --help             shows this text\n";

void SayWaiting() { std::fputs("nodelink-login: waiting for another login\n", stderr); }

int LoginByPassword(const std::string& email) {
  const Password password = Password::Read();
  nodelink::AccountService service;
  service.onLoginWaits(SayWaiting);
  service.login(email, password.text());
  std::printf("Logged in as %s\n", email.c_str());
  return 0;
}

std::string ReadReply() {
  std::string reply;
  std::getline(std::cin, reply);
  const std::size_t begin = reply.find_first_not_of(" \t\r");
  const std::size_t end = reply.find_last_not_of(" \t\r");
  return begin == std::string::npos ? "" : reply.substr(begin, end - begin + 1);
}

int LoginByBrowser() {
  const Json::Value config = nodelink::LoadPkceLoginConfig();
  const SignIn sign_in = BeginSignIn();
  std::printf(
      "Open this address in a browser and sign in:\n\n%s\n\nThen enter the address that the "
      "browser was sent back to:\n",
      SignInAddress(config, sign_in).c_str());
  std::fflush(stdout);
  const std::string code = ReadCode(ReadReply(), sign_in);
  nodelink::AccountPkceServiceImpl service;
  service.onLoginWaits(SayWaiting);
  service.Login(code, sign_in.pair.verifier, config["login_redirect_uri"].asString());
  // The login stands even when the record cannot be read for the name.
  const std::string email = nodelink::User().Get(nodelink::record::kZomiId);
  std::printf("Logged in%s%s\n", email.empty() ? "" : " as ", email.c_str());
  return 0;
}

int Run(int argc, char** argv) {
  const std::string_view option = argc > 1 ? argv[1] : "";
  if (option == "--password" && argc == 3) return LoginByPassword(argv[2]);
  if (option == "--browser" && argc == 2) return LoginByBrowser();
  if (option == "--help" && argc == 2) {
    std::fputs(kUsage, stdout);
    return 0;
  }
  std::fputs(kUsage, stderr);
  return 2;
}

int SayFailure(std::uint32_t code) {
  std::fprintf(stderr, "nodelink-login: %s (code %u)\n", nodelink::ErrorCodeToText(code), code);
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  nodelink::HardenProcess();
  // Overwrites what libraries in C free, of which the requests are made (but for blocks that the C
  // library keeps for the next who wants one as large); the rest is wiping_new.cpp's.
  mallopt(M_PERTURB, 0x5a);
  nodelink::ReturnLargeBlocks();
  try {
    return Run(argc, argv);
  } catch (const nodelink::ZomiException& failure) {
    return SayFailure(failure.code());
  } catch (const std::exception&) {
    return SayFailure(nodelink::kGenericError);
  }
}
