#include "devcloud/state/secrets.h"

#include <sodium.h>

#include <array>
#include <new>
#include <stdexcept>

namespace devcloud {
namespace {

void InitSodium() {
  if (sodium_init() < 0) throw std::runtime_error("libsodium does not start");
}

std::string RandomBytes(std::size_t count) {
  InitSodium();
  std::string bytes(count, '\0');
  randombytes_buf(bytes.data(), bytes.size());
  return bytes;
}

const unsigned char* Bytes(std::string_view text) {
  return reinterpret_cast<const unsigned char*>(text.data());
}

std::string Hex(std::string_view bytes) {
  std::string text(bytes.size() * 2 + 1, '\0');
  sodium_bin2hex(text.data(), text.size(), Bytes(bytes), bytes.size());
  text.pop_back();
  return text;
}

}  // namespace

std::string RandomToken() { return Base64Url(RandomBytes(32)); }

std::string RandomId() { return Hex(RandomBytes(16)); }

std::string Base64Url(std::string_view bytes) {
  constexpr int kVariant = sodium_base64_VARIANT_URLSAFE_NO_PADDING;
  std::string text(sodium_base64_encoded_len(bytes.size(), kVariant), '\0');
  sodium_bin2base64(text.data(), text.size(), Bytes(bytes), bytes.size(), kVariant);
  text.pop_back();
  return text;
}

std::string Sha256(std::string_view text) {
  std::string digest(crypto_hash_sha256_BYTES, '\0');
  crypto_hash_sha256(reinterpret_cast<unsigned char*>(digest.data()), Bytes(text), text.size());
  return digest;
}

std::string Sha256Hex(std::string_view text) { return Hex(Sha256(text)); }

std::string HmacHex(std::string_view key, std::string_view text) {
  crypto_auth_hmacsha256_state state;
  std::string digest(crypto_auth_hmacsha256_BYTES, '\0');
  crypto_auth_hmacsha256_init(&state, Bytes(key), key.size());
  crypto_auth_hmacsha256_update(&state, Bytes(text), text.size());
  crypto_auth_hmacsha256_final(&state, reinterpret_cast<unsigned char*>(digest.data()));
  return Hex(digest);
}

bool SecretsEqual(std::string_view a, std::string_view b) {
  return a.size() == b.size() && sodium_memcmp(a.data(), b.data(), a.size()) == 0;
}

std::string HashPassword(std::string_view password) {
  constexpr unsigned long long kOperations = 2;
  constexpr std::size_t kMemory = std::size_t{4} * 1024 * 1024;
  InitSodium();
  std::array<char, crypto_pwhash_STRBYTES> hash{};
  if (crypto_pwhash_str(hash.data(), password.data(), password.size(), kOperations, kMemory) != 0) {
    throw std::bad_alloc();
  }
  return hash.data();
}

bool PasswordFits(std::string_view password, const std::string& hash) {
  InitSodium();
  return crypto_pwhash_str_verify(hash.c_str(), password.data(), password.size()) == 0;
}

}  // namespace devcloud
