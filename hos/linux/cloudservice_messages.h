// One request to the cloud-service server, as this library asks it of the program that sends it
// (base/confined_program.h).
#pragma once

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace hos_linux {

inline constexpr char kCloudProgram[] = "/usr/kivo/lib/kivo-cloudservice";
inline constexpr std::size_t kLongestPost = std::size_t{64} * 1024;
inline constexpr std::size_t kLargestAnswer = std::size_t{64} * 1024;  // the body
inline constexpr std::size_t kLongestPostAnswer = kLargestAnswer + 1024;
inline constexpr std::chrono::seconds kPostTimeLimit{30};

using PostFields = std::vector<std::pair<std::string, std::string>>;

// To be posted, URL-escaped, to the https address `url` as the user agent `agent`, within
// kPostTimeLimit. Redirects are not followed.
struct PostQuestion {
  std::string url;
  std::string agent;
  PostFields fields;
};

enum class PostEnd { kAnswered, kTooLarge, kBadRequest, kNoMemory, kNetworkFailed };

struct PostAnswer {
  PostEnd end = PostEnd::kNoMemory;
  long status = 0;   // HTTP status; 0 unless an answer came
  std::string text;  // body; why there is none unless an answer came
};

std::string Encode(const PostQuestion& question);
std::string Encode(const PostAnswer& answer);

// Nothing when it is no such message.
std::optional<PostQuestion> DecodePostQuestion(const std::string& message);
std::optional<PostAnswer> DecodePostAnswer(const std::string& message);

}  // namespace hos_linux
