#include "core/error_code.h"

#include <array>
#include <string_view>

namespace nodelink {
namespace {

struct ServerStatus {
  std::string_view word;
  ErrorCode code;
};

// In the order in which they are tried. An answer that names a user id is a success.
constexpr std::array kServerStatuses = {
    ServerStatus{"good", kSuccess},
    ServerStatus{"badparam", kWrongParameters},
    ServerStatus{"badauth", kAuthFailed},
    ServerStatus{"badsys", kSystemError},
    ServerStatus{"badnetwork", kNetworkFailed},
    ServerStatus{"account_inused", kAccountInUse},
    ServerStatus{"serial_exceed_max_account_register", kSerialAtAccountLimit},
    ServerStatus{"account_unverified", kAccountUnverified},
    ServerStatus{"account_userid", kSuccess},
    ServerStatus{"account_not_found", kAccountNotFound},
    ServerStatus{"apikey_not_found", kApiKeyNotFound},
    ServerStatus{"apikey_expired", kApiKeyExpired},
};

std::uint32_t last_error_code = kSuccess;

}  // namespace

const char* ErrorCodeToText(std::uint32_t code) {
  switch (code) {
    case kSuccess: return "Success";
    case kWrongParameters: return "Wrong parameters";
    case kWrongJsonFormat: return "Wrong JSON format";
    case kNoAccount: return "Failed to get zomi account";
    case kRequestNotSent: return "Failed to send the request";
    case kBadResponse: return "Failed to get the response";
    case kNoPaymentHost: return "Failed to get the payment config (url)";
    case kAuthFailed: return "Failed to auth";
    default: return "System error";
  }
}

std::uint32_t ServerStatusToErrorCode(const char* word) {
  if (word == nullptr) return kGenericError;
  for (const ServerStatus& status : kServerStatuses) {
    if (std::string_view(word).starts_with(status.word)) return status.code;
  }
  return kGenericError;
}

void SetLastErrorCode(std::uint32_t code) { last_error_code = code; }

std::uint32_t LastErrorCode() { return last_error_code; }

void SetServerStatusError(const char* word) { SetLastErrorCode(ServerStatusToErrorCode(word)); }

}  // namespace nodelink
