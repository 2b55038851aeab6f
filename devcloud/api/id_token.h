// ID tokens: signed JSON Web Tokens about who has signed in.
#pragma once

#include <json/value.h>

#include <string>

namespace devcloud {

// A compact JWT with these claims, signed with ES256. Throws std::runtime_error unless the key is a
// P-256 private key in PEM.
[[nodiscard]] std::string SignIdToken(const Json::Value& claims, const std::string& key_pem);

}  // namespace devcloud
