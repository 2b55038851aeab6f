#include "pkce/http_request.h"

#include <cpr/cpr.h>

#include <algorithm>
#include <chrono>
#include <string_view>

namespace nodelink {
namespace {

constexpr std::chrono::milliseconds kTimeout{30'000};
constexpr std::size_t kLargestBody = 1024 * 1024;

bool HasLineBreak(const HttpHeaders& headers) {
  return std::any_of(headers.begin(), headers.end(), [](const auto& header) {
    return header.second.find_first_of(std::string_view("\r\n\0", 3)) != std::string::npos;
  });
}

// Values come from servers and files: one with a line break would be a header of its own.
bool AreSendable(const std::vector<HttpHeaders>& sets) {
  return std::none_of(sets.begin(), sets.end(), HasLineBreak);
}

void SetHeaders(cpr::Session& session, const std::vector<HttpHeaders>& sets) {
  for (const HttpHeaders& set : sets) {
    session.SetHeader(cpr::Header(set.begin(), set.end()));
  }
}

void SetForm(cpr::Session& session, const HttpForm& form) {
  std::vector<cpr::Pair> pairs;
  for (const auto& [name, value] : form) {
    pairs.emplace_back(name, value);
  }
  session.SetPayload(cpr::Payload(pairs.begin(), pairs.end()));
}

}  // namespace

HttpAnswer Post(const HttpRequest& request) {
  if (!AreSendable(request.header_sets)) {
    return {static_cast<int>(cpr::ErrorCode::BAD_FUNCTION_ARGUMENT),
            "a header value has a line break", 0, ""};
  }
  std::string text;
  cpr::Session session;
  session.SetUrl(cpr::Url(request.url));
  session.SetTimeout(cpr::Timeout(kTimeout));
  session.SetUserAgent(cpr::UserAgent(request.user_agent));
  SetHeaders(session, request.header_sets);
  session.SetRedirect(cpr::Redirect(false));
  session.SetWriteCallback(cpr::WriteCallback([&text](const std::string_view& bytes, intptr_t) {
    text += bytes;
    return text.size() <= kLargestBody;
  }));
  if (request.form) {
    SetForm(session, *request.form);
  }
  const cpr::Response response = session.Post();
  return {static_cast<int>(response.error.code), response.error.message,
          static_cast<int>(response.status_code), text};
}

}  // namespace nodelink
