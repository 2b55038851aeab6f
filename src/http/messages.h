// What a program and its HTTP worker say to each other.
//
// A question carries all that a request is made of, an answer all that came of it. What is read
// back is bounded and checked: neither side takes the other's word for a length.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "http/log_facts.h"
#include "pkce/http_request.h"

namespace nodelink::http {

inline constexpr std::size_t kLargestBody = std::size_t{1024} * 1024;
inline constexpr std::size_t kLongestQuestion = std::size_t{4} * 1024 * 1024;
inline constexpr std::size_t kLongestAnswer = kLargestBody + kLongestFacts;

// A DeviceApiRequest, and what its sender asks the platform, which the worker cannot do.
struct DeviceApiQuestion {
  std::string host;
  std::string path;
  std::vector<std::pair<std::string, std::string>> params;
  std::string account_id;
  std::string account_password;
  int use_get = 0;
  int quick = 0;
  std::optional<std::string> serial_number;  // none when the platform cannot tell
  std::optional<std::string> user_agent;
};

// What DeviceApiSend gave: an error code or, with kSuccess, a body.
struct DeviceApiAnswer {
  std::uint32_t code = 0;
  std::int32_t transfer_result = 0;
  long http_status = 0;
  std::string body;
};

using Question = std::variant<DeviceApiQuestion, HttpRequest>;

struct Answer {
  std::variant<DeviceApiAnswer, HttpAnswer> result;
  std::vector<LogFact> log;  // in the order in which it happened
};

std::string Encode(const Question& question);
std::string Encode(const Answer& answer);

// Nothing when it is no such message. An answer must fit its question: the one to a device API
// request is a DeviceApiAnswer with a code that its sender can give.
std::optional<Question> DecodeQuestion(const std::string& message);
std::optional<Answer> DecodeAnswer(const std::string& message, const Question& question);

}  // namespace nodelink::http
