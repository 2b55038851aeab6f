#include "cloudservice_post.h"

#include <curl/curl.h>

#include <memory>

namespace hos_linux {
namespace {

constexpr const char* kCertificates = "/etc/ssl/certs/ca-certificates.crt";
constexpr std::size_t kLargestAnswer = std::size_t{64} * 1024;
constexpr long kConnectSeconds = 15;
constexpr long kTotalSeconds = 30;

using Curl = std::unique_ptr<CURL, void (*)(CURL*)>;

std::size_t AppendAnswer(char* bytes, std::size_t size, std::size_t count, void* answer) {
  auto& text = *static_cast<std::string*>(answer);
  const std::size_t length = size * count;
  if (length > kLargestAnswer - text.size()) return 0;
  text.append(bytes, length);
  return length;
}

std::string Escaped(CURL* curl, const std::string& text) {
  const std::unique_ptr<char, void (*)(void*)> escaped(
      curl_easy_escape(curl, text.c_str(), static_cast<int>(text.size())), curl_free);
  return escaped == nullptr ? "" : escaped.get();
}

std::string FormText(CURL* curl, const FormFields& fields) {
  std::string form;
  for (const auto& [name, value] : fields) {
    form += (form.empty() ? "" : "&") + std::string(name) + "=" + Escaped(curl, value);
  }
  return form;
}

// Sets options until one fails.
class Options {
 public:
  explicit Options(CURL* curl) : curl_(curl) {}

  template <typename Value>
  Options& Set(CURLoption option, Value value) {
    if (good_) good_ = curl_easy_setopt(curl_, option, value) == CURLE_OK;
    return *this;
  }

  [[nodiscard]] bool good() const { return good_; }

 private:
  CURL* curl_;
  bool good_ = true;
};

// The platform knows its proxy, if it has one, from no environment variable.
bool Prepare(CURL* curl, const std::string& url, const std::string& agent, const std::string& form,
             std::string& answer) {
  return Options(curl)
      .Set(CURLOPT_URL, url.c_str())
      .Set(CURLOPT_PROTOCOLS_STR, "https")
      .Set(CURLOPT_FOLLOWLOCATION, 0L)
      .Set(CURLOPT_PROXY, "")
      .Set(CURLOPT_USERAGENT, agent.c_str())
      .Set(CURLOPT_POSTFIELDSIZE, static_cast<long>(form.size()))
      .Set(CURLOPT_COPYPOSTFIELDS, form.c_str())
      .Set(CURLOPT_SSL_VERIFYPEER, 1L)
      .Set(CURLOPT_SSL_VERIFYHOST, 2L)
      .Set(CURLOPT_CAINFO, kCertificates)
      .Set(CURLOPT_CONNECTTIMEOUT, kConnectSeconds)
      .Set(CURLOPT_TIMEOUT, kTotalSeconds)
      .Set(CURLOPT_NOSIGNAL, 1L)
      .Set(CURLOPT_WRITEFUNCTION, AppendAnswer)
      .Set(CURLOPT_WRITEDATA, static_cast<void*>(&answer))
      .good();
}

PostEnd EndOf(CURLcode result) {
  switch (result) {
    case CURLE_OK:
      return PostEnd::kAnswered;
    case CURLE_WRITE_ERROR:
      return PostEnd::kTooLarge;
    case CURLE_URL_MALFORMAT:
    case CURLE_UNSUPPORTED_PROTOCOL:
      return PostEnd::kBadRequest;
    case CURLE_OUT_OF_MEMORY:
      return PostEnd::kNoMemory;
    default:
      return PostEnd::kNetworkFailed;
  }
}

PostAnswer Post(const std::string& url, const std::string& agent, const FormFields& fields) {
  const Curl curl(curl_easy_init(), curl_easy_cleanup);
  PostAnswer answer{PostEnd::kNoMemory, 0, ""};
  if (curl == nullptr ||
      !Prepare(curl.get(), url, agent, FormText(curl.get(), fields), answer.text)) {
    return answer;
  }
  const CURLcode result = curl_easy_perform(curl.get());
  answer.end = EndOf(result);
  if (answer.end == PostEnd::kAnswered) {
    curl_easy_getinfo(curl.get(), CURLINFO_RESPONSE_CODE, &answer.status);
  } else {
    answer.text = curl_easy_strerror(result);
  }
  return answer;
}

}  // namespace
}  // namespace hos_linux

extern "C" __attribute__((visibility("default"))) hos_linux::PostForm* KivoCloudServicePost2() {
  return hos_linux::Post;
}
