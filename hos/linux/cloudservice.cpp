#include "kivo/cloudservice.h"

#include <curl/curl.h>
#include <json/reader.h>
#include <json/value.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "atomic_replace.h"
#include "base/atomic_replace.h"
#include "device_facts.h"
#include "error.h"
#include "file.h"
#include "klib/device.h"

namespace hos_linux {
namespace {

constexpr const char* kKeyFile = "/usr/kivo/etc/cloudservice/api_key";
constexpr const char* kKeyFolder = "/usr/kivo/etc/cloudservice";
constexpr const char* kRegisterPath = "/cloudservice/api/v1/apikey/register";
constexpr const char* kCertificates = "/etc/ssl/certs/ca-certificates.crt";
constexpr const char* kProduct = "zomi";
constexpr int kKeyBufferSize = 1024;
constexpr std::size_t kLargestKeyFile = 4096;
constexpr mode_t kKeyFolderMode = 0700;
constexpr std::size_t kLargestAnswer = std::size_t{64} * 1024;
constexpr long kConnectSeconds = 15;
constexpr long kTotalSeconds = 30;
constexpr long kHttpOk = 200;
constexpr int kAgentSize = 256;
constexpr int kDropKeyAction = 2;

// The library's error codes.
enum class CloudError { kNone = 0, kNetwork = 1, kRefused = 2, kLocal = 3 };

CloudError last_cloud_error = CloudError::kNone;

// Either a text or why there is none.
struct Outcome {
  CloudError error = CloudError::kNone;
  std::string text;
};

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
bool Prepare(CURL* curl, const std::string& url, const std::string& form, std::string& answer) {
  char agent[kAgentSize] = "";
  if (KLIBHsinfoUserAgentGet(kProduct, agent, kAgentSize) < 0) return false;
  return Options(curl)
      .Set(CURLOPT_URL, url.c_str())
      .Set(CURLOPT_PROTOCOLS_STR, "https")
      .Set(CURLOPT_FOLLOWLOCATION, 0L)
      .Set(CURLOPT_PROXY, "")
      .Set(CURLOPT_USERAGENT, agent)
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

Outcome Failed(CloudError error, int code, const char* file = __builtin_FILE(),
               int line = __builtin_LINE()) {
  SetError(code, file, line);
  return {error, ""};
}

// What to make of a transfer that did not go through.
Outcome TransferFailed(CURLcode result) {
  switch (result) {
    case CURLE_WRITE_ERROR:
      return Failed(CloudError::kRefused, kTooBig);
    case CURLE_URL_MALFORMAT:
    case CURLE_UNSUPPORTED_PROTOCOL:
    case CURLE_OUT_OF_MEMORY:
      return Failed(CloudError::kLocal, kBadArgument);
    default:
      return Failed(CloudError::kNetwork, kNetworkFailed);
  }
}

Outcome Post(const std::string& url, const std::string& serial, const std::string& mac) {
  const Curl curl(curl_easy_init(), curl_easy_cleanup);
  if (curl == nullptr) return Failed(CloudError::kLocal, ENOMEM);
  const std::string form =
      "serial_no=" + Escaped(curl.get(), serial) + "&mac=" + Escaped(curl.get(), mac);
  Outcome answer;
  if (!Prepare(curl.get(), url, form, answer.text)) return Failed(CloudError::kLocal, kInternal);
  const CURLcode result = curl_easy_perform(curl.get());
  if (result != CURLE_OK) return TransferFailed(result);
  long status = 0;
  curl_easy_getinfo(curl.get(), CURLINFO_RESPONSE_CODE, &status);
  if (status != kHttpOk) return Failed(CloudError::kRefused, kRefused);
  return answer;
}

// One word of visible characters that fits the callers' buffers.
bool IsApiKey(std::string_view key) {
  return !key.empty() && key.size() < kKeyBufferSize &&
         std::all_of(key.begin(), key.end(), [](char c) { return c > ' ' && c < 0x7f; });
}

Outcome KeyInAnswer(const std::string& text) {
  Json::CharReaderBuilder builder;
  const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  Json::Value answer;
  const bool parsed = reader->parse(text.data(), text.data() + text.size(), &answer, nullptr);
  if (!parsed || !answer.isObject() || !answer["api_key"].isString()) {
    return Failed(CloudError::kRefused, kBadContent);
  }
  const std::string key = answer["api_key"].asString();
  if (!IsApiKey(key)) return Failed(CloudError::kRefused, kBadContent);
  return {CloudError::kNone, key};
}

// A parser exception (nesting too deep) is a bad answer too.
Outcome ParseAnswer(const std::string& text) {
  try {
    return KeyInAnswer(text);
  } catch (const Json::Exception&) {
    return Failed(CloudError::kRefused, kBadContent);
  }
}

bool StoreKey(const std::string& key) {
  if (mkdir(kKeyFolder, kKeyFolderMode) != 0 && errno != EEXIST) return FalseFromErrno();
  const std::optional<LockedFolder> folder = LockedFolder::Of(kKeyFile);
  return folder && folder->Replace(base::FileNameOf(kKeyFile), key + "\n", Attributes::kPrivate);
}

Outcome RegisterKey() {
  const std::optional<std::string> base = ReadKey(kDeviceFacts, "cloudservice_url");
  const std::optional<std::string> serial = SerialNumber();
  const std::optional<std::string> mac = MacAddress();
  if (!base || !serial || !mac) return Failed(CloudError::kLocal, kNotFound);
  Outcome answer = Post(*base + kRegisterPath, *serial, *mac);
  if (answer.error != CloudError::kNone) return answer;
  Outcome key = ParseAnswer(answer.text);
  if (key.error == CloudError::kNone && !StoreKey(key.text)) key.error = CloudError::kLocal;
  return key;
}

// A file that holds no key is as good as none: registering heals it.
Outcome StoredKey() {
  const FileText file = ReadFile(kKeyFile, kLargestKeyFile);
  if (file.state == ReadState::kFailed) return {CloudError::kLocal, ""};
  const std::string line = file.text.substr(0, file.text.find('\n'));
  return {CloudError::kNone, IsApiKey(line) ? line : ""};
}

Outcome StoredOrNewKey(bool register_missing) {
  Outcome key = StoredKey();
  if (key.error != CloudError::kNone || !key.text.empty()) return key;
  if (!register_missing) return Failed(CloudError::kLocal, kNotFound);
  return RegisterKey();
}

int Report(CloudError error) {
  last_cloud_error = error;
  return error == CloudError::kNone ? 0 : -1;
}

int Give(const Outcome& key, char* buffer) {
  if (key.error == CloudError::kNone) CopyOut(key.text, buffer, kKeyBufferSize);
  return Report(key.error);
}

template <typename Work>
int Guarded(Work work) {
  last_cloud_error = CloudError::kLocal;
  return PlatformCall(-1, work);
}

int DropKey() {
  const std::optional<LockedFolder> folder = LockedFolder::Of(kKeyFile);
  if (!folder) return Report(errno == ENOENT ? CloudError::kNone : CloudError::kLocal);
  return Report(folder->Remove(base::FileNameOf(kKeyFile)) ? CloudError::kNone
                                                           : CloudError::kLocal);
}

}  // namespace
}  // namespace hos_linux

extern "C" {

int KIVOHsinfoCloudServiceGetMacAddress(char* buffer, int size) {
  if (buffer == nullptr || size < 1) return hos_linux::Fail(hos_linux::kBadArgument);
  return hos_linux::PlatformCall(-1, [=] {
    const std::optional<std::string> address = hos_linux::MacAddress();
    if (!address) return hos_linux::Fail(hos_linux::kNotFound);
    return hos_linux::CopyOut(*address, buffer, size);
  });
}

int KIVOCloudServiceGetApiKey(char* buffer, int register_missing) {
  return hos_linux::Guarded([=] {
    if (buffer == nullptr) return hos_linux::Fail(hos_linux::kBadArgument);
    return hos_linux::Give(hos_linux::StoredOrNewKey(register_missing == 1), buffer);
  });
}

int KIVOCloudServiceRegisterApiKey(char* buffer) {
  return hos_linux::Guarded([=] {
    if (buffer == nullptr) return hos_linux::Fail(hos_linux::kBadArgument);
    return hos_linux::Give(hos_linux::RegisterKey(), buffer);
  });
}

int KIVOCloudServiceGetErrorCode(void) { return static_cast<int>(hos_linux::last_cloud_error); }

int KIVOCloudServiceActionHandler(int action) {
  return hos_linux::Guarded([=] {
    if (action != hos_linux::kDropKeyAction) return hos_linux::Fail(hos_linux::kBadArgument);
    return hos_linux::DropKey();
  });
}
}
