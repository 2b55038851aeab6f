#include "deviceapi/zomi_https_req_send.h"

#include <curl/curl.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "core/error_code.h"
#include "core/log.h"
#include "core/platform_owner.h"
#include "deviceapi/zomi_token_generation.h"
#include "klibc/string.h"
#include "platform/zomi_agent_name_get.h"

namespace nodelink {
namespace {

constexpr std::size_t kInitialParamsSize = 1024;
constexpr std::size_t kSerialSize = 256;
constexpr std::size_t kUrlSize = 4096;
constexpr std::size_t kHostLineSize = 128;
constexpr int kKeyListSize = 512;
constexpr char kCaBundle[] = "/etc/ssl/certs/ca-certificates.crt";
constexpr long kLowSpeedLimit = 128;  // bytes per second
constexpr long kLowSpeedTime = 60;    // seconds
constexpr long kMaxRedirects = 10;

// Answers are small JSON texts; a server that sends more is broken or hostile. What is made of an
// answer takes many times its size in memory.
constexpr std::size_t kLargestBody = 1024 * 1024;

struct CurlFree {
  void operator()(CURL* curl) const { curl_easy_cleanup(curl); }
  void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};
using CurlHandle = std::unique_ptr<CURL, CurlFree>;
using CurlList = std::unique_ptr<curl_slist, CurlFree>;

// What the server has sent so far, with a NUL behind it; null after a failed allocation.
struct ReceiveBuffer {
  HeapText text;
  std::size_t length = 0;

  // An attempt that broke off must not leave its part of the body before the next one's.
  void Clear() {
    text.reset();
    length = 0;
  }
};

// A text's block while a call may move it to another place; its owner's again in any case, an
// exception included.
class LentText {
 public:
  explicit LentText(HeapText& owner) : owner_(owner), block_(owner.release()) {}
  LentText(const LentText&) = delete;
  LentText& operator=(const LentText&) = delete;
  ~LentText() { owner_.reset(block_); }

  char** place() { return &block_; }

 private:
  HeapText& owner_;
  char* block_;
};

// One pass through the sender. Each step logs its own failure.
class Transfer {
 public:
  explicit Transfer(const DeviceApiRequest& request) : request_(request) {}

  // Returns the error code of the failure, kSuccess when `response` holds the answer.
  ErrorCode Run(DeviceApiResponse& response);

 private:
  bool BuildParams();
  bool AppendParam(const char* name, const char* value, bool first = false);
  bool AppendHash(const KLIBCSZLIST* keys);
  SzList ListKeys() const;
  void BuildUrl();
  bool Prepare();
  bool SetForm();
  bool SetUrl();
  bool SetUserAgent();
  bool SetHeaders();
  bool SetTls();
  bool SetTimeLimits();
  bool SetTimeLimit(CURLoption option);
  bool SetReceiver();
  bool Perform();
  bool ReadStatus(DeviceApiResponse& response);
  bool TakeAnswer(DeviceApiResponse& response);
  bool IsQuick() const { return request_.quick != 0; }

  // False when libcurl refuses the option: `result_` and Reason() say why.
  template <typename Value>
  bool Set(CURLoption option, Value value) {
    result_ = curl_easy_setopt(curl_.get(), option, value);
    return result_ == CURLE_OK;
  }
  const char* Reason() const { return curl_easy_strerror(result_); }

  const DeviceApiRequest& request_;
  CurlHandle curl_;
  CurlList headers_;
  ReceiveBuffer received_;
  HeapText params_;
  std::size_t params_size_ = kInitialParamsSize;
  std::array<char, kSerialSize> serial_{};  // later the user agent
  std::array<char, kUrlSize> url_{};
  CURLcode result_ = CURLE_OK;
};

std::size_t WriteMemoryCallback(char* bytes, std::size_t size, std::size_t count, void* target) {
  auto& buffer = *static_cast<ReceiveBuffer*>(target);
  const std::size_t added = size * count;
  char* grown = nullptr;
  if (buffer.length + added <= kLargestBody) {
    grown = static_cast<char*>(std::realloc(buffer.text.get(), buffer.length + added + 1));
  }
  if (grown == nullptr) {
    buffer.Clear();
    return 0;
  }
  (void)buffer.text.release();
  buffer.text.reset(grown);
  std::memcpy(grown + buffer.length, bytes, added);
  buffer.length += added;
  grown[buffer.length] = '\0';
  return added;
}

bool IsRetryable(CURLcode result) {
  return result == CURLE_OPERATION_TIMEDOUT || result == CURLE_COULDNT_RESOLVE_PROXY ||
         result == CURLE_COULDNT_RESOLVE_HOST;
}

ErrorCode Transfer::Run(DeviceApiResponse& response) {
  params_.reset(static_cast<char*>(std::calloc(params_size_, 1)));
  if (!params_) return kSystemError;
  curl_.reset(curl_easy_init());
  if (!curl_) {
    LogError(Here(), "failed to init pCurl");
    return kRequestNotSent;
  }
  if (!BuildParams()) return kRequestNotSent;
  BuildUrl();
  const bool answered = Prepare() && Perform() && ReadStatus(response) && TakeAnswer(response);
  response.transfer_result = result_;
  return answered ? kSuccess : kRequestNotSent;
}

bool Transfer::BuildParams() {
  const char* given_serial = KLIBCSzHashGetValue(request_.params, "hs_sn");
  if (given_serial != nullptr) std::snprintf(serial_.data(), serial_.size(), "%s", given_serial);
  std::array<char, kDeviceTokenSize> token{};
  if (DeviceTokenGenerate(request_.account_id, request_.account_password, serial_.data(),
                          serial_.size(), token.data(), token.size()) != 0) {
    return false;
  }
  const SzList keys = ListKeys();
  return keys && AppendParam("hs_sn", serial_.data(), true) &&
         AppendParam("hs_token", token.data()) &&
         (request_.account_id[0] == '\0' || AppendParam("zomiID", request_.account_id)) &&
         (request_.account_password[0] == '\0' ||
          AppendParam("zomiPW", request_.account_password)) &&
         AppendHash(keys.get());
}

// The hash's keys; null when they cannot be listed or there is none.
SzList Transfer::ListKeys() const {
  SzList keys(KLIBCSzListAlloc(kKeyListSize));
  if (!keys) {
    LogError(Here(), "out of memory, ERR=[0x%04X %s:%d]", PLATFORM_ERROR_TRIPLE);
    return nullptr;
  }
  if (KLIBCSzHashEnumKey(request_.params, keys.get()) <= 0) {
    LogError(Here(), "no key in the hash, ERR=[0x%04X %s:%d]", PLATFORM_ERROR_TRIPLE);
    return nullptr;
  }
  return keys;
}

bool Transfer::AppendHash(const KLIBCSZLIST* keys) {
  const char* key = nullptr;
  for (int index = 0; (key = KLIBCSzListGet(keys, index)) != nullptr; ++index) {
    const char* value = KLIBCSzHashGetValue(request_.params, key);
    if (value != nullptr && !AppendParam(key, value)) return false;
  }
  return true;
}

bool Transfer::AppendParam(const char* name, const char* value, bool first) {
  LentText block(params_);
  return DeviceApiAppendParam(curl_.get(), name, value, block.place(), &params_size_, first) == 0;
}

void Transfer::BuildUrl() {
  if (request_.use_get == 1) {
    std::snprintf(url_.data(), url_.size(), "%s/%s?%s", request_.host, request_.path,
                  params_.get());
  } else {
    std::snprintf(url_.data(), url_.size(), "%s/%s", request_.host, request_.path);
  }
}

bool Transfer::Prepare() {
  return SetForm() && SetUrl() && SetUserAgent() && SetHeaders() && SetTls() && SetTimeLimits() &&
         SetReceiver();
}

bool Transfer::SetForm() {
  if (request_.use_get == 1 || *params_ == '\0') return true;
  if (!Set(CURLOPT_POST, 1L) || !Set(CURLOPT_POSTFIELDS, params_.get())) {
    LogError(Here(), "%s, Failed to set POST parameters, code=%d, err=%s", url_.data(), result_,
             Reason());
    return false;
  }
  return true;
}

// Redirects go to https only, so that the parameters never travel in the clear.
bool Transfer::SetUrl() {
  if (!Set(CURLOPT_URL, url_.data()) || !Set(CURLOPT_FOLLOWLOCATION, 1L) ||
      !Set(CURLOPT_REDIR_PROTOCOLS_STR, "https") || !Set(CURLOPT_MAXREDIRS, kMaxRedirects)) {
    LogError(Here(), "Failed to set url to %s, code=%d, err=%s", url_.data(), result_, Reason());
    return false;
  }
  return true;
}

// Without a user agent of the device the buffer still holds the serial number, which serves as
// well.
bool Transfer::SetUserAgent() {
  DeviceApiUserAgentGet(serial_.data(), static_cast<int>(serial_.size()));
  if (!Set(CURLOPT_USERAGENT, serial_.data())) {
    LogError(Here(), "failed to set agent=%s, return value=%d, err=%s", serial_.data(), result_,
             Reason());
    return false;
  }
  return true;
}

// The list is made before the Host line is formatted, on purpose: its one entry is empty, so
// libcurl sends its own Host header, which also holds after a redirect to another host.
bool Transfer::SetHeaders() {
  std::memset(serial_.data(), 0, kHostLineSize);
  headers_.reset(curl_slist_append(nullptr, serial_.data()));
  std::snprintf(serial_.data(), kHostLineSize, "Host: %s", request_.host);
  if (!Set(CURLOPT_HTTPHEADER, headers_.get())) {
    LogError(Here(), "failed to set req=%s, header=%s, return value=%d, err=%s", request_.host,
             serial_.data(), result_, Reason());
    return false;
  }
  return true;
}

bool Transfer::SetTls() {
  if (!Set(CURLOPT_SSL_VERIFYPEER, 1L) || !Set(CURLOPT_SSL_VERIFYHOST, 2L) ||
      !Set(CURLOPT_CAINFO, kCaBundle) || !Set(CURLOPT_SSLVERSION, long{CURL_SSLVERSION_TLSv1})) {
    LogError(Here(), "Failed to set curl opt error:(%d)%s", result_, Reason());
    return false;
  }
  return true;
}

// Only the limit of the whole transfer must hold; the others are refinements.
bool Transfer::SetTimeLimits() {
  if (!Set(CURLOPT_LOW_SPEED_LIMIT, kLowSpeedLimit) ||
      !Set(CURLOPT_LOW_SPEED_TIME, kLowSpeedTime)) {
    LogError(Here(), "Failed to set time-out, return value=%d, err=%s", result_, Reason());
  }
  (void)SetTimeLimit(CURLOPT_CONNECTTIMEOUT);
  return SetTimeLimit(CURLOPT_TIMEOUT);
}

bool Transfer::SetTimeLimit(CURLoption option) {
  const long seconds = IsQuick() ? 15 : 120;
  if (!Set(option, seconds)) {
    LogError(Here(), "failed to set time-out, return value=%d, err=%s", result_, Reason());
    return false;
  }
  return true;
}

bool Transfer::SetReceiver() {
  if (!Set(CURLOPT_WRITEFUNCTION, WriteMemoryCallback)) {
    LogError(Here(), "failed to write function WriteMemoryCallback, return value=%d, err=%s",
             result_, Reason());
    return false;
  }
  if (!Set(CURLOPT_WRITEDATA, &received_)) {
    LogError(Here(), "failed to write data, return value=%d, err=%s", result_, Reason());
    return false;
  }
  (void)Set(CURLOPT_IPRESOLVE, long{CURL_IPRESOLVE_WHATEVER});
  return true;
}

// False ends the request. When every attempt fails in a way that is worth trying again, the request
// goes on to its status, which is 0 then and is reported as such.
bool Transfer::Perform() {
  const int attempts = IsQuick() ? 2 : 3;
  for (int attempt = 1; attempt <= attempts; ++attempt) {
    received_.Clear();
    result_ = curl_easy_perform(curl_.get());
    if (result_ == CURLE_OK) return true;
    if (!IsRetryable(result_)) {
      LogError(Here(), "%s, Failed to curl perform, code=%d, err=%s", url_.data(), result_,
               Reason());
      return false;
    }
    if (attempt == attempts - 1) (void)Set(CURLOPT_IPRESOLVE, long{CURL_IPRESOLVE_V4});
    sleep(1);
  }
  received_.Clear();  // part of a body is no answer
  return true;
}

bool Transfer::ReadStatus(DeviceApiResponse& response) {
  const CURLcode result =
      curl_easy_getinfo(curl_.get(), CURLINFO_RESPONSE_CODE, &response.http_status);
  if (result != CURLE_OK) {
    result_ = result;
    LogError(Here(), "%s, Failed to curl_easy_getinfo, code=%d, err=%s", url_.data(), result,
             curl_easy_strerror(result));
  }
  return result == CURLE_OK;
}

// The server reports errors in the body of a 400, so that is an answer like any other.
bool Transfer::TakeAnswer(DeviceApiResponse& response) {
  constexpr long kOk = 200;
  constexpr long kBadRequest = 400;
  if (response.http_status != kOk && response.http_status != kBadRequest) {
    LogError(Here(), "%s, Failed to request packages, httpResponseCode=%ld, data=%s", url_.data(),
             response.http_status, received_.text ? received_.text.get() : "");
    return false;
  }
  if (received_.length == 0) {
    LogError(Here(), "%s, Failed to get response", url_.data());
    return false;
  }
  KLIBCStrTrimSpace(received_.text.get());
  response.body = received_.text.release();
  return true;
}

int ConcatFailed() {
  LogError(Here(), "Fail to concat string");
  return -1;
}

struct EncodedFree {
  void operator()(char* text) const { curl_free(text); }
};

}  // namespace

int DeviceApiAppendParam(void* curl, const char* name, const char* value, char** buffer,
                         std::size_t* size, bool first) {
  const std::unique_ptr<char, EncodedFree> encoded(curl_easy_escape(curl, value, 0));
  if (!encoded) {
    LogError(Here(), "URL encoding failed: %s", value);
    return -1;
  }
  for (const char* text : {first ? "" : "&", name, "=", static_cast<const char*>(encoded.get())}) {
    if (*text != '\0' && KLIBCStrCat(buffer, size, text) < 0) return ConcatFailed();
  }
  return 0;
}

int DeviceApiSend(const DeviceApiRequest* request, DeviceApiResponse* response) {
  if (request == nullptr || response == nullptr || request->host == nullptr ||
      request->path == nullptr) {
    return Fail(kWrongParameters);
  }
  *response = DeviceApiResponse{};
  const ErrorCode code = Transfer(*request).Run(*response);
  return code == kSuccess ? 0 : Fail(code);
}

}  // namespace nodelink
