// PKCE's proof that whoever trades in a code is who asked for it (RFC 7636, S256).
#pragma once

#include <string>

namespace devcloud {

// True for 43 characters of base64url.
[[nodiscard]] bool IsCodeChallenge(const std::string& text);

// True for a verifier of 43 to 128 unreserved characters whose challenge this is.
[[nodiscard]] bool VerifierFits(const std::string& verifier, const std::string& challenge);

}  // namespace devcloud
