// MD5 is what the servers compute; OpenSSL 3 marks these calls as deprecated and keeps them.
#define OPENSSL_SUPPRESS_DEPRECATED

#include "deviceapi/zomi_token_generation.h"

#include <openssl/md5.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/log.h"
#include "core/platform_owner.h"
#include "klib/device.h"
#include "klibc/string.h"

namespace nodelink {
namespace {

constexpr std::size_t kHexDigits = 32;
constexpr std::size_t kWorkingTextSize = 4096;
constexpr std::size_t kFlashSerialSize = 36;
constexpr std::size_t kInitialTextSize = 1024;

// The places of these two lines in the log are fixed: administrators' filters know them.
constexpr LogSite kFlashSerialInvalidSite{"zomi_token_generation", 67};
constexpr LogSite kGivenSerialInvalidSite{"zomi_token_generation", 90};

// Only the first character is checked. ASCII, whatever the locale.
bool IsAcceptable(const char* serial) {
  const char first = serial[0];
  return (first >= '0' && first <= '9') || (first >= 'a' && first <= 'z') ||
         (first >= 'A' && first <= 'Z');
}

int RefuseSerial(LogSite site, const char* serial) {
  LogError(site, "Serial number is invalid: [%s][0x%04X %s:%d]", serial, PLATFORM_ERROR_TRIPLE);
  return -1;
}

int EnsureSerial(char* serial, std::size_t size) {
  if (serial == nullptr || *serial == '\0') return DeviceSerialNumberGet(serial, size);
  return IsAcceptable(serial) ? 0 : RefuseSerial(kGivenSerialInvalidSite, serial);
}

// The texts, joined without a separator; null texts are skipped. Null when there is no memory
// (logged).
HeapText Join(const std::array<const char*, 3>& texts) {
  std::size_t size = kInitialTextSize;
  HeapText joined(static_cast<char*>(std::calloc(size, 1)));
  if (!joined) {
    LogError(Here(), "Fail to allocate");
    return joined;
  }
  for (const char* text : texts) {
    char* block = joined.release();
    const int result = text == nullptr ? 0 : KLIBCStrCat(&block, &size, text);
    joined.reset(block);
    if (result < 0) {
      LogError(Here(), "Fail to concat string");
      return nullptr;
    }
  }
  return joined;
}

int Digest(const char* text, char* output, std::size_t size) {
  if (Md5Hex(text, output, size) != 0) {
    LogError(Here(), "Failed to get md5 string from \"%s\".", text);
    return -1;
  }
  return 0;
}

// From the first digit alone, although the whole digest was computed: the servers count so.
long RoundCount(std::array<char, kDeviceTokenSize>& digest) {
  digest[1] = '\0';
  constexpr int kHexadecimal = 16;
  return std::strtol(digest.data(), nullptr, kHexadecimal) + 1;
}

}  // namespace

int Md5Hex(const char* text, char* output, std::size_t size) {
  if (text == nullptr || size < kHexDigits) return -1;
  std::memset(output, 0, size);
  MD5_CTX context;
  std::array<unsigned char, MD5_DIGEST_LENGTH> digest{};
  if (MD5_Init(&context) != 1 || MD5_Update(&context, text, std::strlen(text)) != 1 ||
      MD5_Final(digest.data(), &context) != 1) {
    return -1;
  }
  for (std::size_t byte = 0; byte < digest.size(); ++byte) {
    std::snprintf(output + 2 * byte, size - 2 * byte, "%02x", digest[byte]);
  }
  return 0;
}

int TokenHashRounds(const char* text, char* output, std::size_t size) {
  if (text == nullptr) {
    LogError(Here(), "Parameter error");
    return -1;
  }
  std::array<char, kDeviceTokenSize> digest{};
  if (Digest(text, digest.data(), digest.size()) != 0) return -1;
  std::array<char, kWorkingTextSize> working{};
  std::snprintf(working.data(), working.size(), "%s", text);
  for (long rounds = RoundCount(digest); rounds > 0; --rounds) {
    if (Digest(working.data(), digest.data(), digest.size()) != 0) return -1;
    std::array<char, kWorkingTextSize + kDeviceTokenSize> scratch{};
    std::snprintf(scratch.data(), scratch.size(), "%s%s", working.data(), digest.data());
    if (Digest(scratch.data(), working.data(), working.size()) != 0) return -1;
  }
  std::snprintf(output, size, "%s", working.data());
  return 0;
}

int DeviceSerialNumberGet(char* buffer, std::size_t size) {
  if (buffer == nullptr) {
    LogError(Here(), "Wrong parameters");
    return -1;
  }
  std::array<char, kFlashSerialSize> serial{};
  if (KLIBGetSerialNumber(serial.data(), static_cast<int>(serial.size())) < 0) {
    LogError(Here(), "Failed to get serial number from flash. [0x%04X %s:%d]",
             PLATFORM_ERROR_TRIPLE);
    return -1;
  }
  std::snprintf(buffer, size, "%s", serial.data());
  return IsAcceptable(buffer) ? 0 : RefuseSerial(kFlashSerialInvalidSite, buffer);
}

int DeviceTokenGenerate(const char* account_id, const char* password, char* serial,
                        std::size_t serial_size, char* token, std::size_t token_size) {
  if (EnsureSerial(serial, serial_size) != 0) return -1;
  const HeapText text = Join({serial, account_id, password});
  if (!text) return -1;
  if (TokenHashRounds(text.get(), token, token_size) != 0) {
    LogError(Here(), "GenerateToken Failed, err=[0x%04X %s:%d]", PLATFORM_ERROR_TRIPLE);
    return -1;
  }
  return 0;
}

}  // namespace nodelink
