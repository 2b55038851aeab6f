// The OAuth requests' transport: one POST over HTTPS, one answer back.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace nodelink {

using HttpHeaders = std::vector<std::pair<std::string, std::string>>;
using HttpForm = std::vector<std::pair<std::string, std::string>>;

struct HttpRequest {
  std::string url;
  std::string user_agent;

  // Sets of headers, applied one after the other; each replaces the one before it.
  std::vector<HttpHeaders> header_sets;

  // Sent URL-escaped as the body, in this order. Without a form the body is empty.
  std::optional<HttpForm> form;
};

struct HttpAnswer {
  int error_code = 0;         // of the transfer; 0 when an answer came, whatever its status
  std::string error_message;  // the transfer's
  int status = 0;             // HTTP status
  std::string text;           // body, 1 MiB at most: a longer one is a transfer error
};

inline constexpr std::chrono::seconds kPostTimeLimit{30};

// Posts `request`, within kPostTimeLimit. Redirects are not followed, so that no token or key is
// sent on. Never throws for a bad URL or answer: that is a transfer error.
HttpAnswer Post(const HttpRequest& request);

}  // namespace nodelink
