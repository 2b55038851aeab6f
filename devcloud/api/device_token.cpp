#include "devcloud/api/device_token.h"

#include <array>
#include <string_view>

#include "devcloud/http/openssl_handles.h"

namespace devcloud {
namespace {

constexpr std::string_view kHexDigits = "0123456789abcdef";

std::string Md5Hex(const std::string& text) {
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
  unsigned int size = 0;
  CheckOpenssl(EVP_Digest(text.data(), text.size(), digest.data(), &size, EVP_md5(), nullptr) == 1,
               "cannot compute MD5");
  std::string hex;
  for (unsigned int i = 0; i < size; ++i) {
    hex += kHexDigits[digest.at(i) >> 4U];
    hex += kHexDigits[digest.at(i) & 0xFU];
  }
  return hex;
}

}  // namespace

std::string DeviceToken(const std::string& serial, const std::string& account_id,
                        const std::string& account_password) {
  std::string token = serial + account_id + account_password;
  const std::size_t rounds = kHexDigits.find(Md5Hex(token).front()) + 1;
  for (std::size_t round = 0; round < rounds; ++round) {
    token += Md5Hex(token);
    token = Md5Hex(token);
  }
  return token;
}

}  // namespace devcloud
