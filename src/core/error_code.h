// Error codes: one numbering for both layers of the program, for the server's status words, and for
// what users are told.
#pragma once

#include <cstdint>

namespace nodelink {

enum ErrorCode : std::uint32_t {
  kSuccess = 0,
  kWrongParameters = 1,
  kWrongJsonFormat = 2,
  kNoAccount = 3,
  kRequestNotSent = 4,
  kBadResponse = 5,
  kSystemError = 6,
  kNoPaymentHost = 7,
  kNoSerialNumber = 8,
  kAuthFailed = 14,
  kNetworkFailed = 15,
  kAccountInUse = 16,
  kSerialAtAccountLimit = 17,
  kAccountUnverified = 18,
  kAccountNotWritten = 19,
  kNoMacAddress = 20,
  kNoToken = 22,
  kNoServerConfig = 23,
  kGenericError = 24,
  kAccountNotFound = 25,
  kApiKeyNotFound = 26,
  kApiKeyExpired = 27,
};

// The text that users see for `code`. Codes without a text of their own give "System error".
const char* ErrorCodeToText(std::uint32_t code);

// The code of a server status word. Words are matched by the beginning: "goodbye" counts as "good".
// A null word, or one that nothing matches, gives kGenericError.
std::uint32_t ServerStatusToErrorCode(const char* word);

// The code of the cloud-service library's own last error.
std::uint32_t CloudServiceErrorToCode();

// The last-error cell: one number for the whole process, 0 at start. Functions that return -1 leave
// their reason here.
void SetLastErrorCode(std::uint32_t code);
std::uint32_t LastErrorCode();

// Stores ServerStatusToErrorCode(word) in the last-error cell.
void SetServerStatusError(const char* word);

}  // namespace nodelink
