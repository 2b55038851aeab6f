// Random secrets, digests, password hashes.
#pragma once

#include <string>
#include <string_view>

namespace devcloud {

// 32 random bytes, base64url without padding: 43 characters.
[[nodiscard]] std::string RandomToken();

// 16 random bytes, 32 lower-case hex digits.
[[nodiscard]] std::string RandomId();

[[nodiscard]] std::string Base64Url(std::string_view bytes);  // without padding

// Raw 32-byte SHA-256, and the same as 64 lower-case hex digits.
[[nodiscard]] std::string Sha256(std::string_view text);
[[nodiscard]] std::string Sha256Hex(std::string_view text);

// HMAC-SHA-256 as 64 lower-case hex digits. Any key length.
[[nodiscard]] std::string HmacHex(std::string_view key, std::string_view text);

// Equal, in a time that tells nothing about where they differ.
[[nodiscard]] bool SecretsEqual(std::string_view a, std::string_view b);

// A salted hash to store, and its check. Made cheap on purpose: development passwords, many tests.
[[nodiscard]] std::string HashPassword(std::string_view password);
[[nodiscard]] bool PasswordFits(std::string_view password, const std::string& hash);

}  // namespace devcloud
