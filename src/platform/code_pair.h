// The pair of texts that ties an authorization code to who asked for it (RFC 7636, S256).
#pragma once

#include <string>

namespace nodelink {

// 43 characters of base64url each.
struct CodePair {
  std::string challenge;  // travels with the request for a code
  std::string verifier;   // travels with the code to the token endpoint
};

// A new pair of the platform's. Throws ZomiException with kSystemError.
CodePair MakeCodePair();

}  // namespace nodelink
