// Proof Key for Code Exchange (RFC 7636).
#pragma once

#include <stddef.h>

extern "C" {

// Writes a new S256 code challenge and its code verifier, each 43 characters of base64url without
// padding and a NUL, into the two buffers of 44 bytes or more. Keeps nothing.
// Returns 0 or a positive number on success, a negative number on failure.
int kivo_challenge_verifier_no_save(char* challenge, size_t challenge_size, char* verifier,
                                    size_t verifier_size);
}
