#include "kivo/cloudservice.h"

#include <json/reader.h>
#include <json/value.h>
#include <sys/stat.h>
#include <syslog.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "base/atomic_replace.h"
#include "base/confined_program.h"
#include "hos/linux/cloudservice_messages.h"
#include "hos/linux/device_facts.h"
#include "hos/linux/error.h"
#include "hos/linux/file.h"
#include "hos/linux/locked_folder.h"
#include "klib/device.h"

namespace hos_linux {
namespace {

constexpr char kKeyFile[] = "/usr/kivo/etc/cloudservice/api_key";
constexpr char kKeyFolder[] = "/usr/kivo/etc/cloudservice";
constexpr char kRegisterPath[] = "/cloudservice/api/v1/apikey/register";
constexpr char kProduct[] = "zomi";
constexpr int kKeyBufferSize = 1024;
constexpr std::size_t kLargestKeyFile = 4096;
constexpr mode_t kKeyFolderMode = 0700;
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

Outcome Failed(CloudError error, int code, const char* file = __builtin_FILE(),
               int line = __builtin_LINE()) {
  SetError(code, file, line);
  return {error, ""};
}

// What to make of a request without an answer.
Outcome RequestFailed(PostEnd end) {
  switch (end) {
    case PostEnd::kTooLarge: return Failed(CloudError::kRefused, kTooBig);
    case PostEnd::kBadRequest: return Failed(CloudError::kLocal, kBadArgument);
    case PostEnd::kNoMemory: return Failed(CloudError::kLocal, ENOMEM);
    case PostEnd::kAnswered:
    case PostEnd::kNetworkFailed: break;
  }
  return Failed(CloudError::kNetwork, kNetworkFailed);
}

// The callers log no reason of their own.
void LogFailure(const std::string& url, const std::string& why) {
  syslog(LOG_ERR, "Failed to register an API key at %s: %s", url.c_str(), why.c_str());
}

// Nothing, logged, when the program gives no answer that is one.
std::optional<PostAnswer> AskProgram(const PostQuestion& question) {
  constexpr std::chrono::seconds kGrace{30};  // the program keeps the limit itself
  base::ConfinedProgram program(kCloudProgram);
  std::string why = "the answer is malformed";
  const auto message =
      program.Ask(Encode(question), kLongestPostAnswer, kPostTimeLimit + kGrace, why);
  auto answer = message ? DecodePostAnswer(*message) : std::nullopt;
  if (!answer) syslog(LOG_ERR, "Failed to ask %s: %s", kCloudProgram, why.c_str());
  return answer;
}

Outcome AskForKey(const std::string& url, const PostFields& fields) {
  char agent[kAgentSize] = "";
  if (KLIBHsinfoUserAgentGet(kProduct, agent, kAgentSize) < 0) {
    return Failed(CloudError::kLocal, kInternal);
  }
  const std::optional<PostAnswer> given = AskProgram({url, agent, fields});
  if (!given) return Failed(CloudError::kLocal, kInternal);
  const PostAnswer& answer = *given;
  if (answer.end != PostEnd::kAnswered) {
    LogFailure(url, answer.text);
    return RequestFailed(answer.end);
  }
  if (answer.status != kHttpOk) {
    LogFailure(url, "status " + std::to_string(answer.status));
    return Failed(CloudError::kRefused, kRefused);
  }
  return {CloudError::kNone, answer.text};
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
Outcome ReadApiKey(const std::string& text) {
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
  const std::string url = *base + kRegisterPath;
  Outcome answer = AskForKey(url, {{"serial_no", *serial}, {"mac", *mac}});
  if (answer.error != CloudError::kNone) return answer;
  Outcome key = ReadApiKey(answer.text);
  if (key.error != CloudError::kNone) LogFailure(url, "the answer holds no key");
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
  if (buffer == nullptr || size < 1) return hos_linux::MinusOne(hos_linux::kBadArgument);
  return hos_linux::PlatformCall(-1, [=] {
    const std::optional<std::string> address = hos_linux::MacAddress();
    if (!address) return hos_linux::MinusOne(hos_linux::kNotFound);
    return hos_linux::CopyOut(*address, buffer, size);
  });
}

int KIVOCloudServiceGetApiKey(char* buffer, int register_missing) {
  return hos_linux::Guarded([=] {
    if (buffer == nullptr) return hos_linux::MinusOne(hos_linux::kBadArgument);
    return hos_linux::Give(hos_linux::StoredOrNewKey(register_missing == 1), buffer);
  });
}

int KIVOCloudServiceRegisterApiKey(char* buffer) {
  return hos_linux::Guarded([=] {
    if (buffer == nullptr) return hos_linux::MinusOne(hos_linux::kBadArgument);
    return hos_linux::Give(hos_linux::RegisterKey(), buffer);
  });
}

int KIVOCloudServiceGetErrorCode(void) { return static_cast<int>(hos_linux::last_cloud_error); }

int KIVOCloudServiceActionHandler(int action) {
  return hos_linux::Guarded([=] {
    if (action != hos_linux::kDropKeyAction) return hos_linux::MinusOne(hos_linux::kBadArgument);
    return hos_linux::DropKey();
  });
}
}
