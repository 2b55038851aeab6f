// Signing in through a browser: the address to open, and what the browser was sent back with.
#pragma once

#include <json/value.h>

#include <string>

#include "platform/code_pair.h"

namespace nodelink_login {

// One sign-in.
struct SignIn {
  nodelink::CodePair pair;
  std::string state;  // ties the answer to this request
};

// Throws ZomiException with kSystemError when there is no randomness.
SignIn BeginSignIn();

// The authorization endpoint of the finished client configuration `config` with the request in its
// query.
std::string SignInAddress(const Json::Value& config, const SignIn& sign_in);

// The authorization code of `reply`: the address that the browser was sent back to, or the bare
// code. Throws ZomiException with kAuthFailed when the address says that the sign-in was refused,
// kWrongParameters when it has another state, or no code.
std::string ReadCode(const std::string& reply, const SignIn& sign_in);

}  // namespace nodelink_login
