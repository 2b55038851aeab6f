// One request to the cloud-service server. It is all that needs libcurl here, so it lives in a
// module of its own, which is loaded when an API key has to be registered.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace hos_linux {

inline constexpr char kCloudModulePath[] = "/usr/kivo/lib/kivo_cloudservice.so";

// The module's one symbol. Its number grows with every change of what is declared here.
inline constexpr char kCloudModuleSymbol[] = "KivoCloudServicePost2";

using FormFields = std::vector<std::pair<const char*, std::string>>;

enum class PostEnd { kAnswered, kTooLarge, kBadRequest, kNoMemory, kNetworkFailed };

struct PostAnswer {
  PostEnd end;
  long status;       // HTTP status; 0 unless an answer came
  std::string text;  // body, 64 KiB at most; why there is none unless an answer came
};

// Posts `fields`, URL-escaped, to the https address `url` as the user agent `agent`, within 30 s.
// Redirects are not followed.
using PostForm = PostAnswer(const std::string& url, const std::string& agent,
                            const FormFields& fields);

}  // namespace hos_linux
