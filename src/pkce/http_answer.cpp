#include "pkce/http_answer.h"

#include "core/error_code.h"
#include "core/include/internal/string_utils.h"
#include "core/zomi_exception.h"

namespace nodelink {
namespace {

constexpr int kOk = 200;

}  // namespace

std::string AnswerText(const std::string& what, const HttpAnswer& answer) {
  return FormatString("Failed to " + what + ", code=%d, resp=%s", answer.status, answer.text);
}

void CheckTransfer(const std::string& what, const HttpAnswer& answer) {
  if (answer.error_code != 0) {
    throw ZomiException(kBadResponse, FormatString("Failed to " + what + ", reqcode=%d, reqmsg=%s",
                                                   answer.error_code, answer.error_message));
  }
}

void CheckStatus(const std::string& what, const HttpAnswer& answer) {
  if (answer.status != kOk) throw ZomiException(kBadResponse, AnswerText(what, answer));
}

}  // namespace nodelink
