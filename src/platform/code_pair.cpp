#include "platform/code_pair.h"

#include <array>

#include "core/error_code.h"
#include "core/zomi_exception.h"
#include "kivo/pkce.h"

namespace nodelink {

CodePair MakeCodePair() {
  std::array<char, 44> challenge{};
  std::array<char, 44> verifier{};
  if (kivo_challenge_verifier_no_save(challenge.data(), challenge.size(), verifier.data(),
                                      verifier.size()) < 0) {
    throw ZomiException(kSystemError, "Failed to get code challenge & verifier");
  }
  return {challenge.data(), verifier.data()};
}

}  // namespace nodelink
