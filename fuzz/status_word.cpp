// The server's status words. Input: the word.
#include <cstring>

#include "core/error_code.h"
#include "fuzz/property.h"

namespace {

using nodelink::kGenericError;
using nodelink::ServerStatusToErrorCode;

void CheckPrefixes(const std::string& word, std::uint32_t code) {
  bool matched = false;
  for (std::size_t length = 0; length <= word.size(); ++length) {
    const std::uint32_t of_prefix = ServerStatusToErrorCode(word.substr(0, length).c_str());
    fuzz::Check(of_prefix == kGenericError ? !matched : of_prefix == code,
                "what follows a status word does not matter");
    matched = of_prefix != kGenericError;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string word = fuzz::Parts(data, size, 2)[0];
  const std::uint32_t code = ServerStatusToErrorCode(word.c_str());
  fuzz::Check(code <= nodelink::kApiKeyExpired, "a status word gives a known code");
  fuzz::Check(std::strlen(nodelink::ErrorCodeToText(code)) > 0, "each code has a text");
  nodelink::SetServerStatusError(word.c_str());
  fuzz::Check(nodelink::LastErrorCode() == code, "the last error is the word's code");
  constexpr std::size_t kLongestThatIsTried = 256;
  if (word.size() <= kLongestThatIsTried) CheckPrefixes(word, code);
  return 0;
}
