#include "devcloud/api/code_challenge.h"

#include <string_view>

#include "devcloud/state/secrets.h"

namespace devcloud {
namespace {

bool IsBase64Url(std::string_view text) {
  return text.find_first_not_of(
             "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_") ==
         std::string_view::npos;
}

bool IsCodeVerifier(std::string_view text) {
  return text.size() >= 43 && text.size() <= 128 &&
         text.find_first_not_of(
             "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-._~") ==
             std::string_view::npos;
}

}  // namespace

bool IsCodeChallenge(const std::string& text) { return text.size() == 43 && IsBase64Url(text); }

bool VerifierFits(const std::string& verifier, const std::string& challenge) {
  return IsCodeVerifier(verifier) && SecretsEqual(Base64Url(Sha256(verifier)), challenge);
}

}  // namespace devcloud
