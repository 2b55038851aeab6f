// The credentials that the older, password-based link left in the account record.
#pragma once

#include <array>

namespace nodelink {

// NUL-terminated texts, cut at 4095 bytes.
struct LegacyCredentials {
  std::array<char, 4096> zomi_id;
  std::array<char, 4096> zomi_pw;
};

// Fills `credentials`. Returns 0, or -1 with the last error code set: kWrongParameters for null,
// kNoAccount when the record or one of the two values is missing or empty (the identifier may then
// be filled already), kSystemError without memory or privileges.
[[nodiscard]] int ZomiConfigGet(LegacyCredentials* credentials);

}  // namespace nodelink
