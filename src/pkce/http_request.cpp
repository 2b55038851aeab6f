#include "pkce/http_request.h"

#include <cpr/cpr.h>
#include <curl/curl.h>

#include <chrono>
#include <string_view>

namespace nodelink {
namespace {

constexpr std::chrono::milliseconds kTimeout{30'000};
constexpr std::size_t kLargestBody = 1024 * 1024;

bool HasLineBreak(const std::string& value) {
  return value.find_first_of(std::string_view("\r\n\0", 3)) != std::string::npos;
}

// Values come from servers and files: one with a line break would be a header of its own.
bool IsSendable(const HttpRequest& request) {
  bool sendable = !HasLineBreak(request.user_agent);
  for (const HttpHeaders& set : request.header_sets) {
    for (const auto& [name, value] : set) {
      sendable = sendable && !HasLineBreak(value);
    }
  }
  return sendable;
}

// cpr has no setting of its own for this: a host that the record names is no reason to read local
// files, or to send a token in the clear.
void AllowHttpsOnly(cpr::Session& session) {
  curl_easy_setopt(session.GetCurlHolder()->handle, CURLOPT_PROTOCOLS_STR, "https");
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
  if (!IsSendable(request)) {
    return {static_cast<int>(cpr::ErrorCode::BAD_FUNCTION_ARGUMENT),
            "a header value has a line break", 0, ""};
  }
  std::string text;
  cpr::Session session;
  session.SetUrl(cpr::Url(request.url));
  session.SetTimeout(cpr::Timeout(kTimeout));
  session.SetUserAgent(cpr::UserAgent(request.user_agent));
  SetHeaders(session, request.header_sets);
  AllowHttpsOnly(session);
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
