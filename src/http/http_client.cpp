// The caller's side: a request is asked of the worker, which alone talks to the network.

#include <array>
#include <chrono>
#include <cstring>
#include <mutex>
#include <string>

#include "base/confined_program.h"
#include "core/error_code.h"
#include "core/log.h"
#include "core/platform_owner.h"
#include "deviceapi/zomi_https_req_send.h"
#include "http/messages.h"
#include "klib/device.h"

namespace nodelink {
namespace {

using http::Answer;
using http::DeviceApiAnswer;
using http::DeviceApiQuestion;
using http::Question;

constexpr char kWorker[] = "/usr/kivo/lib/nodelink-http";
constexpr int kFailedInit = 2;  // libcurl's CURLE_FAILED_INIT
constexpr int kKeyListSize = 512;
constexpr int kSerialSize = 36;
constexpr int kAgentSize = 256;
constexpr char kProduct[] = "zomi";

// The worker keeps its own time limits; this one is for a worker that does not.
constexpr std::chrono::seconds kGrace{30};

// One for all requests of the process.
class Worker {
 public:
  // Nothing, logged, when no answer came or none that is one; `why` then says so.
  std::optional<Answer> Ask(const Question& question, std::chrono::seconds limit,
                            std::string& why) {
    const std::scoped_lock one_at_a_time(mutex_);
    const auto message = program_.Ask(http::Encode(question), http::kLongestAnswer, limit, why);
    std::optional<Answer> answer = message ? http::DecodeAnswer(*message, question) : std::nullopt;
    if (message && !answer) {
      program_.Stop();
      why = "the answer is malformed";
    }
    if (!answer) LogError(Here(), "Failed to ask %s: %s", kWorker, why.c_str());
    return answer;
  }

 private:
  std::mutex mutex_;
  base::ConfinedProgram program_{kWorker};
};

Worker& TheWorker() {
  static Worker worker;
  return worker;
}

// What the sender would have logged here comes first: it happened first.
template <typename Result>
std::optional<Result> Ask(const Question& question, std::chrono::seconds limit, std::string& why) {
  auto answer = TheWorker().Ask(question, limit + kGrace, why);
  if (!answer) return std::nullopt;
  for (const http::LogFact& fact : answer->log) http::Log(fact);
  return std::get<Result>(std::move(answer->result));
}

bool NamesSerialNumber(const KLIBCSZHASH* params) {
  const char* given = KLIBCSzHashGetValue(params, "hs_sn");
  return given != nullptr && *given != '\0';
}

bool ReadSerialNumber(DeviceApiQuestion& question) {
  std::array<char, kSerialSize> serial{};
  if (KLIBGetSerialNumber(serial.data(), kSerialSize) < 0) return false;
  question.serial_number = serial.data();
  return true;
}

bool ReadParams(const KLIBCSZHASH* params, DeviceApiQuestion& question) {
  const SzList keys(KLIBCSzListAlloc(kKeyListSize));
  if (!keys || KLIBCSzHashEnumKey(params, keys.get()) <= 0) return false;
  const char* key = nullptr;
  for (int index = 0; (key = KLIBCSzListGet(keys.get(), index)) != nullptr; ++index) {
    if (const char* value = KLIBCSzHashGetValue(params, key)) {
      question.params.emplace_back(key, value);
    }
  }
  return true;
}

bool ReadUserAgent(DeviceApiQuestion& question) {
  std::array<char, kAgentSize> agent{};
  if (KLIBHsinfoUserAgentGet(kProduct, agent.data(), kAgentSize) < 0) return false;
  question.user_agent = agent.data();
  return true;
}

// What the sender asks the platform, in its order. What fails here will fail there, and be logged
// with the platform's reason, which is then the last one.
void AskPlatform(const KLIBCSZHASH* params, DeviceApiQuestion& question) {
  (void)((NamesSerialNumber(params) || ReadSerialNumber(question)) &&
         ReadParams(params, question) && ReadUserAgent(question));
}

DeviceApiQuestion QuestionOf(const DeviceApiRequest& request) {
  DeviceApiQuestion question;
  question.host = request.host;
  question.path = request.path;
  question.account_id = request.account_id;
  question.account_password = request.account_password;
  question.use_get = request.use_get;
  question.quick = request.quick;
  AskPlatform(request.params, question);
  return question;
}

int Give(const DeviceApiAnswer& answer, DeviceApiResponse& response) {
  response.transfer_result = answer.transfer_result;
  response.http_status = answer.http_status;
  if (answer.code != kSuccess) return Fail(answer.code);
  response.body = strdup(answer.body.c_str());
  return response.body == nullptr ? Fail(kSystemError) : 0;
}

}  // namespace

int DeviceApiSend(const DeviceApiRequest* request, DeviceApiResponse* response) {
  if (request == nullptr || response == nullptr || request->host == nullptr ||
      request->path == nullptr) {
    return Fail(kWrongParameters);
  }
  *response = DeviceApiResponse{};
  std::string why;
  const auto answer =
      Ask<DeviceApiAnswer>(QuestionOf(*request), DeviceApiTimeLimit(request->quick != 0), why);
  return answer ? Give(*answer, *response) : Fail(kRequestNotSent);
}

HttpAnswer Post(const HttpRequest& request) {
  std::string why;
  auto answer = Ask<HttpAnswer>(request, kPostTimeLimit, why);
  return answer ? std::move(*answer) : HttpAnswer{kFailedInit, why, 0, ""};
}

}  // namespace nodelink
