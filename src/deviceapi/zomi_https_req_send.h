// The device API's transport: one form of parameters to the account server over HTTPS, one answer
// back.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "klibc/szhash.h"

namespace nodelink {

struct DeviceApiRequest {
  const char* host;             // base URL, borrowed; the request's URL is host, "/", path
  const char* path;             // without a slash at the beginning, borrowed
  KLIBCSZHASH* params;          // name to value, borrowed; never empty
  char account_id[4096];        // "zomiID"; empty when not used
  char account_password[4096];  // "zomiPW"; empty when not used
  int use_get;                  // 1: parameters in the query string; else a form as POST body
  int quick;                    // not 0: at most 2 attempts of 15 s; else 3 of 120 s
};

// The longest that a send takes: its attempts, each with the pause that may follow it.
constexpr std::chrono::seconds DeviceApiTimeLimit(bool quick) {
  return quick ? std::chrono::seconds(2 * (15 + 1)) : std::chrono::seconds(3 * (120 + 1));
}

struct DeviceApiResponse {
  std::int32_t transfer_result;  // libcurl's last result code; 0 when nothing was started
  long http_status;              // 0 until it could be read
  char* body;                    // white space trimmed at both ends; null unless the send succeeded
};

// Sends "hs_sn" (the serial number), "hs_token", "zomiID" and "zomiPW" where given, and then every
// parameter of the hash in its order, values percent-encoded. An "hs_sn" of the hash is the serial
// number that is used, and is sent a second time in its place. Returns 0 when an answer with status
// 200 or 400 and a body came. Else -1, logged, with the last error code set: kWrongParameters for a
// null argument, host or path, kSystemError without memory, kRequestNotSent for anything else. The
// caller frees the response with DeviceApiResponseFree in either case.
int DeviceApiSend(const DeviceApiRequest* request, DeviceApiResponse* response);

// Frees the body and sets body and status to null and 0. Null is ignored.
inline void DeviceApiResponseFree(DeviceApiResponse* response) {
  if (response != nullptr) {
    std::free(response->body);
    response->body = nullptr;
    response->http_status = 0;
  }
}

// Appends "NAME=VALUE" to the heap text `*buffer` of `*size` bytes (klibc/string.h), after a "&"
// unless it is the `first` pair; the value is percent-encoded with the curl handle `curl`, the name
// is taken as it is. Returns 0, or -1 (logged).
int DeviceApiAppendParam(void* curl, const char* name, const char* value, char** buffer,
                         std::size_t* size, bool first);

}  // namespace nodelink
