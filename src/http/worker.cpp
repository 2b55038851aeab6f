// nodelink-http: sends the requests of a program that must not talk to the network itself, and has
// no rights of its own (base/confinement.h).

#include <cstdlib>
#include <optional>
#include <string>

#include "base/confinement.h"
#include "core/error_code.h"
#include "core/platform_owner.h"
#include "deviceapi/zomi_https_req_send.h"
#include "http/messages.h"
#include "http/worker_surroundings.h"

namespace nodelink::http {
namespace {

constexpr int kHashSize = 1024;

void CopyText(const std::string& text, char* buffer, std::size_t size) {
  buffer[text.copy(buffer, size - 1)] = '\0';
}

SzHash HashOf(const DeviceApiQuestion& question) {
  SzHash params(KLIBCSzHashAlloc(kHashSize));
  for (const auto& [name, value] : question.params) {
    (void)KLIBCSzHashSetValue(params.get(), name.c_str(), value.c_str());
  }
  return params;
}

DeviceApiAnswer Send(const DeviceApiQuestion& question) {
  const PlatformAnswers answers(question);
  const SzHash params = HashOf(question);
  DeviceApiRequest request = {};
  request.host = question.host.c_str();
  request.path = question.path.c_str();
  request.params = params.get();
  CopyText(question.account_id, request.account_id, sizeof request.account_id);
  CopyText(question.account_password, request.account_password, sizeof request.account_password);
  request.use_get = question.use_get;
  request.quick = question.quick;
  DeviceApiResponse response = {};
  const int result = DeviceApiSend(&request, &response);
  DeviceApiAnswer answer = {result == 0 ? std::uint32_t{kSuccess} : LastErrorCode(),
                            response.transfer_result, response.http_status,
                            response.body == nullptr ? "" : response.body};
  DeviceApiResponseFree(&response);
  return answer;
}

HttpAnswer Send(const HttpRequest& request) {
  HttpAnswer answer = Post(request);
  answer.text.resize(std::min(answer.text.size(), kLargestBody));
  return answer;
}

// Only a program of another make asks what cannot be read.
std::string AnswerTo(const std::string& message) {
  const std::optional<Question> question = DecodeQuestion(message);
  if (!question) std::_Exit(EXIT_FAILURE);
  Answer answer;
  std::visit([&answer](const auto& asked) { answer.result = Send(asked); }, *question);
  answer.log = TakeLog();
  return Encode(answer);
}

}  // namespace
}  // namespace nodelink::http

int main() {
  const int status =
      base::ServeConfined(nodelink::http::kLongestQuestion, nodelink::http::AnswerTo);
  std::_Exit(status);  // nothing is left to be put in order
}
