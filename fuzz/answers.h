// A network of the fuzzer's: what it answers, and the device that asks.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace fuzz {

// Linked in the place of the product's transports, both of the device API and of OAuth. Each answer
// is one character for what comes back ("2": status 200, "4": 401, "5": 500, any other: the
// transfer fails) and the body; the last answer is repeated.
void SetAnswers(std::vector<std::string> answers);

// Requests since SetAnswers.
[[nodiscard]] std::size_t RequestCount();

// A linked device with expired tokens, on a fresh scripted platform.
void MakeDevice();

// The same with a token file of the text `tokens`.
void MakeDevice(const std::string& tokens);

[[nodiscard]] std::string Record();
[[nodiscard]] std::string Tokens();
inline constexpr char kFirstTokens[] =
    R"({"access_token":"a","id_token":"i","refresh_token":"r","created_at":1,"expires_in":1})";

// Whether the record is as MakeDevice left it, or gone.
[[nodiscard]] bool IsRecordOldOrGone();

// Whether the token file is that of MakeDevice, or gone, or has all that a token file needs.
[[nodiscard]] bool AreTokensWhole();

// Runs `flow`; false when it threw one of the exceptions that flows may throw. A limit of requests
// and what the platform lent are checked.
bool Succeeds(const std::function<void()>& flow);

}  // namespace fuzz
