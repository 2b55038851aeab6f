// Error codes: one numbering for both layers of the program, for the server's status words, and for
// what users are told.
#pragma once

#include <cstdint>

namespace nodelink {

enum ErrorCode : std::uint32_t {
  kSuccess = 0,
  kWrongParameters = 1,  // the caller's, or the server says so
  kWrongJsonFormat = 2,  // of an answer or a file
  kNoAccount = 3,        // the device is not linked
  kRequestNotSent = 4,   // or no answer came to it
  kBadResponse = 5,      // none, of another status, or without what it must hold
  kSystemError = 6,      // privileges, memory, files
  kNoPaymentHost = 7,
  kNoSerialNumber = 8,  // the platform cannot tell
  kAuthFailed = 14,     // the server refuses the device, password or token
  kNetworkFailed = 15,  // the cloud service cannot be reached
  kAccountInUse = 16,
  kSerialAtAccountLimit = 17,
  kAccountUnverified = 18,  // its e-mail address
  kAccountNotWritten = 19,  // the record
  kNoMacAddress = 20,       // the platform cannot tell
  kNoToken = 22,            // no token file, or a token missing in it or in an answer
  kNoServerConfig = 23,
  kGenericError = 24,
  kAccountNotFound = 25,  // the server knows no such account
  kApiKeyNotFound = 26,   // the server does not know the device's API key
  kApiKeyExpired = 27,
};

// The text that users see for `code`, English and never null. Codes without a text of their own
// give "System error".
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

// Stores `code` in the last-error cell and gives the -1 of a function that failed.
inline int Fail(std::uint32_t code) {
  SetLastErrorCode(code);
  return -1;
}

// Stores ServerStatusToErrorCode(word) in the last-error cell.
void SetServerStatusError(const char* word);

}  // namespace nodelink
