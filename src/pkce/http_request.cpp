#include "pkce/http_request.h"

#include <cpr/cpr.h>
#include <curl/curl.h>

#include <chrono>
#include <memory>
#include <string_view>
#include <utility>

namespace nodelink {
namespace {

constexpr std::size_t kLargestBody = 1024 * 1024;

bool HasLineBreak(const std::string& value) {
  return value.find_first_of(std::string_view("\r\n\0", 3)) != std::string::npos;
}

// Values come from servers and files: one with a line break would be a header of its own.
bool IsSendable(const HttpRequest& request) {
  bool sendable = !HasLineBreak(request.user_agent);
  for (const HttpHeaders& set : request.header_sets) {
    for (const auto& [name, value] : set) sendable = sendable && !HasLineBreak(value);
  }
  return sendable;
}

// cpr has no setting of its own for these. A host that the record names is no reason to read local
// files, or to send a token in the clear. And libcurl keeps the CA bundle that it has parsed for
// the handle's next request only without a CA folder; Debian's folder holds the bundle's
// certificates.
void SetCurlOptions(CURL* curl) {
  curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, "https");
  curl_easy_setopt(curl, CURLOPT_CAPATH, nullptr);
}

std::unique_ptr<cpr::Session> MakeSession() {
  auto session = std::make_unique<cpr::Session>();
  session->SetTimeout(cpr::Timeout(std::chrono::milliseconds(kPostTimeLimit)));
  session->SetRedirect(cpr::Redirect(false));
  session->SetHeaderCallback(cpr::HeaderCallback([](std::string_view, intptr_t) { return true; }));
  SetCurlOptions(session->GetCurlHolder()->handle);
  return session;
}

// One for all requests of the process: those that follow one another parse the CA bundle once and
// share their connections.
cpr::Session& TheSession() {
  static const std::unique_ptr<cpr::Session> session = MakeSession();
  return *session;
}

// Nothing of the request before travels with the next one.
void Forget(cpr::Session& session) {
  session.SetHeader({});
  curl_easy_setopt(session.GetCurlHolder()->handle, CURLOPT_COOKIELIST, "ALL");
}

void SetHeaders(cpr::Session& session, const std::vector<HttpHeaders>& sets) {
  for (const HttpHeaders& set : sets) session.SetHeader(cpr::Header(set.begin(), set.end()));
}

void SetForm(cpr::Session& session, const HttpForm& form) {
  std::vector<cpr::Pair> pairs;
  for (const auto& [name, value] : form) pairs.emplace_back(name, value);
  session.SetPayload(cpr::Payload(pairs.begin(), pairs.end()));
}

// cpr asks for the text of the servers' certificates, which nobody reads.
cpr::Response Perform(cpr::Session& session) {
  CURL* curl = session.GetCurlHolder()->handle;
  session.PreparePost();
  curl_easy_setopt(curl, CURLOPT_CERTINFO, 0L);
  return session.Complete(curl_easy_perform(curl));
}

}  // namespace

HttpAnswer Post(const HttpRequest& request) {
  if (!IsSendable(request)) {
    return {static_cast<int>(cpr::ErrorCode::BAD_FUNCTION_ARGUMENT),
            "a header value has a line break", 0, ""};
  }
  std::string text;
  cpr::Session& session = TheSession();
  Forget(session);
  session.SetUrl(cpr::Url(request.url));
  session.SetUserAgent(cpr::UserAgent(request.user_agent));
  SetHeaders(session, request.header_sets);
  session.SetWriteCallback(cpr::WriteCallback([&text](const std::string_view& bytes, intptr_t) {
    text += bytes;
    return text.size() <= kLargestBody;
  }));
  SetForm(session, request.form.value_or(HttpForm()));
  const cpr::Response response = Perform(session);
  return {static_cast<int>(response.error.code), response.error.message,
          static_cast<int>(response.status_code), std::move(text)};
}

}  // namespace nodelink
