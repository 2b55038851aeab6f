// kivo-cloudservice: sends the platform's requests to the cloud-service server, for programs that
// must not talk to the network themselves.

#include <curl/curl.h>

#include <cstdlib>
#include <memory>
#include <optional>
#include <string>

#include "base/confinement.h"
#include "hos/linux/cloudservice_messages.h"

namespace hos_linux {
namespace {

constexpr long kConnectSeconds = 15;

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

std::string FormText(CURL* curl, const PostFields& fields) {
  std::string form;
  for (const auto& [name, value] : fields) {
    form += (form.empty() ? "" : "&") + name + "=" + Escaped(curl, value);
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

bool Prepare(CURL* curl, const PostQuestion& question, std::string& answer) {
  const std::string form = FormText(curl, question.fields);
  return Options(curl)
      .Set(CURLOPT_URL, question.url.c_str())
      .Set(CURLOPT_FOLLOWLOCATION, 0L)
      .Set(CURLOPT_USERAGENT, question.agent.c_str())
      .Set(CURLOPT_POSTFIELDSIZE, static_cast<long>(form.size()))
      .Set(CURLOPT_COPYPOSTFIELDS, form.c_str())
      .Set(CURLOPT_SSL_VERIFYPEER, 1L)
      .Set(CURLOPT_SSL_VERIFYHOST, 2L)
      .Set(CURLOPT_CONNECTTIMEOUT, kConnectSeconds)
      .Set(CURLOPT_TIMEOUT, static_cast<long>(kPostTimeLimit.count()))
      .Set(CURLOPT_NOSIGNAL, 1L)
      .Set(CURLOPT_WRITEFUNCTION, AppendAnswer)
      .Set(CURLOPT_WRITEDATA, static_cast<void*>(&answer))
      .good();
}

PostEnd EndOf(CURLcode result) {
  switch (result) {
    case CURLE_OK: return PostEnd::kAnswered;
    case CURLE_WRITE_ERROR: return PostEnd::kTooLarge;
    case CURLE_URL_MALFORMAT:
    case CURLE_UNSUPPORTED_PROTOCOL: return PostEnd::kBadRequest;
    case CURLE_OUT_OF_MEMORY: return PostEnd::kNoMemory;
    default: return PostEnd::kNetworkFailed;
  }
}

PostAnswer Perform(const PostQuestion& question) {
  const Curl curl(curl_easy_init(), curl_easy_cleanup);
  PostAnswer answer;
  if (curl == nullptr || !Prepare(curl.get(), question, answer.text)) return answer;
  const CURLcode result = curl_easy_perform(curl.get());
  answer.end = EndOf(result);
  if (answer.end == PostEnd::kAnswered) {
    curl_easy_getinfo(curl.get(), CURLINFO_RESPONSE_CODE, &answer.status);
  } else {
    answer.text = curl_easy_strerror(result);
  }
  return answer;
}

// Only a library of another make asks what cannot be read.
std::string AnswerTo(const std::string& message) {
  const std::optional<PostQuestion> question = DecodePostQuestion(message);
  if (!question) std::_Exit(EXIT_FAILURE);
  return Encode(Perform(*question));
}

}  // namespace
}  // namespace hos_linux

int main() {
  const int status = base::ServeConfined(hos_linux::kLongestPost, hos_linux::AnswerTo);
  std::_Exit(status);  // nothing is left to be put in order
}
