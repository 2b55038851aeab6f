#include "kivo/pkce.h"

#include <sodium.h>

#include "hos/linux/error.h"

namespace hos_linux {
namespace {

constexpr std::size_t kRandomBytes = 32;
constexpr int kVariant = sodium_base64_VARIANT_URLSAFE_NO_PADDING;
constexpr std::size_t kTextSize = sodium_base64_ENCODED_LEN(kRandomBytes, kVariant);
static_assert(kTextSize == 44 && crypto_hash_sha256_BYTES == kRandomBytes);

void EncodeTo(char* text, const unsigned char* bytes) {
  sodium_bin2base64(text, kTextSize, bytes, kRandomBytes, kVariant);
}

}  // namespace
}  // namespace hos_linux

extern "C" {

int kivo_challenge_verifier_no_save(char* challenge, size_t challenge_size, char* verifier,
                                    size_t verifier_size) {
  using namespace hos_linux;
  if (challenge == nullptr || challenge_size < kTextSize || verifier == nullptr ||
      verifier_size < kTextSize) {
    return MinusOne(kBadArgument);
  }
  if (sodium_init() < 0) return MinusOne(kInternal);
  unsigned char bytes[kRandomBytes];
  randombytes_buf(bytes, sizeof bytes);
  EncodeTo(verifier, bytes);
  crypto_hash_sha256(bytes, reinterpret_cast<const unsigned char*>(verifier), kTextSize - 1);
  EncodeTo(challenge, bytes);
  return 0;
}
}
