#include <algorithm>
#include <cctype>
#include <cstdarg>
#include <cstring>
#include <sstream>

#include "kivo/cloudservice.h"
#include "kivo/crond.h"
#include "kivo/log.h"
#include "kivo/pkce.h"
#include "kivo/scemd.h"
#include "kivo/sysnotify.h"
#include "kivo/zone.h"
#include "klib/device.h"
#include "klib/plugin.h"
#include "klibc/exec.h"
#include "tests/fake_hos/internal.h"

struct KLIBPLUGIN {
  std::string plugin;
  std::string action;
};

namespace fake_hos {
namespace {

constexpr int kApiKeySize = 1024;

// Every cloud-service call leaves its outcome in the library's error code.
int CloudFailed() {
  platform().cloud.error_code = platform().cloud.failure_code;
  return Failed(-1);
}

int GiveApiKey(const std::optional<std::string>& key, char* buffer) {
  if (!key || buffer == nullptr) return CloudFailed();
  platform().cloud.error_code = 0;
  CopyOut(*key, buffer, kApiKeySize);
  return 0;
}

int RegisterKey(char* buffer) {
  CloudService& cloud = platform().cloud;
  if (buffer != nullptr && cloud.next_api_key) cloud.stored_api_key = cloud.next_api_key;
  return GiveApiKey(cloud.next_api_key, buffer);
}

bool IsPlainText(const Json::Value& value) {
  if (!value.isString()) return false;
  const std::string text = value.asString();
  return !text.empty() && std::none_of(text.begin(), text.end(),
                                       [](unsigned char c) { return std::iscntrl(c) != 0; });
}

bool HasFiveFields(const std::string& schedule) {
  std::istringstream words(schedule);
  std::string word;
  int fields = 0;
  while (words >> word) {
    if (word.find_first_not_of("0123456789*~,/-abcdefghijklmnopqrstuvwxyz") != std::string::npos) {
      return false;
    }
    ++fields;
  }
  return fields == 5;
}

bool IsCommand(const Json::Value& words) {
  return words.isArray() && !words.empty() && std::all_of(words.begin(), words.end(), IsPlainText);
}

// Only the shape: which values a field may hold is for the real platform to know.
bool IsJob(const Json::Value& job) {
  return job.isObject() && IsPlainText(job["name"]) && job["period"] == "crontab" &&
         IsPlainText(job["crontab"]) && HasFiveFields(job["crontab"].asString()) &&
         IsPlainText(job["user"]) && IsCommand(job["cmd_list"]);
}

std::string PairText(const KLIBCSZHASH& hash) {
  std::string text;
  for (const auto& [name, value] : hash.entries) {
    text.append(text.empty() ? "" : ", ").append(name).append("=").append(value);
  }
  return "{" + text + "}";
}

std::vector<std::string> TextsOf(const ExecRun& run) {
  std::vector<std::string> texts = {run.path, Text(run.flags)};
  texts.insert(texts.end(), run.args.begin(), run.args.end());
  return texts;
}

int RunProgram(const ExecRun& run) {
  Platform& fake = platform();
  fake.exec_runs.push_back(run);
  return fake.exec ? fake.exec(run) : fake.exec_status;
}

bool FitsPkce(const char* buffer, std::size_t size, const std::string& text) {
  return buffer != nullptr && size > text.size();
}

}  // namespace
}  // namespace fake_hos

using fake_hos::CopyOut;
using fake_hos::Failed;
using fake_hos::platform;
using fake_hos::Text;

extern "C" {

int KLIBGetSerialNumber(char* buffer, int size) {
  if (!platform().Enter("KLIBGetSerialNumber", {Text(size)})) return -1;
  const auto& serial = platform().device.serial_number;
  if (buffer == nullptr || size < 1 || !serial) return Failed(-1);
  CopyOut(*serial, buffer, size);
  return 0;
}

int KLIBHsinfoUserAgentGet(const char* product, char* buffer, int size) {
  if (!platform().Enter("KLIBHsinfoUserAgentGet", {Text(product), Text(size)})) return -1;
  const auto& tail = platform().device.user_agent_tail;
  if (product == nullptr || buffer == nullptr || size < 1 || !tail) return Failed(-1);
  CopyOut(std::string(product) + " " + *tail, buffer, size);
  return 0;
}

int KLIBPluginSDKInit(const char* plugin, const char* action, KLIBPLUGIN** handle,
                      KLIBPLUGIN** place) {
  const bool same_place = place == handle;
  if (handle != nullptr) *handle = nullptr;
  if (!platform().Enter("KLIBPluginSDKInit", {Text(plugin), Text(action),
                                              place == nullptr ? "null"
                                              : same_place     ? "handle"
                                                               : "other"})) {
    return -1;
  }
  if (plugin == nullptr || action == nullptr || handle == nullptr) return Failed(-1);
  *handle = new KLIBPLUGIN{plugin, action};
  platform().ObjectMade();
  return 0;
}

int KLIBPluginAction(unsigned int number, KLIBPLUGIN* handle) {
  const bool works = platform().Enter("KLIBPluginAction", {Text(static_cast<long>(number))});
  if (handle == nullptr) return Failed(-1);
  platform().plugin_runs.push_back({handle->plugin, handle->action, number});
  return works ? 0 : -1;
}

int KLIBPluginExit(KLIBPLUGIN* handle) {
  const bool works = platform().Enter("KLIBPluginExit", {handle == nullptr ? "null" : "handle"});
  if (handle != nullptr) platform().ObjectGone();
  delete handle;
  return works ? 0 : -1;
}

int KLIBCExecl(const char* path, int flags, ...) {
  fake_hos::ExecRun run{Text(path), flags, {}};
  va_list args;
  va_start(args, flags);
  for (const char* arg = va_arg(args, const char*); arg != nullptr;
       arg = va_arg(args, const char*)) {
    run.args.emplace_back(arg);
  }
  va_end(args);
  if (!platform().Enter("KLIBCExecl", fake_hos::TextsOf(run)) || path == nullptr) return Failed(-1);
  return fake_hos::RunProgram(run);
}

int KIVOHsinfoCloudServiceGetMacAddress(char* buffer, int size) {
  if (!platform().Enter("KIVOHsinfoCloudServiceGetMacAddress", {Text(size)})) return -1;
  const auto& mac = platform().device.mac_address;
  if (buffer == nullptr || size < 1 || !mac) return Failed(-1);
  CopyOut(*mac, buffer, size);
  return 0;
}

int KIVOCloudServiceGetApiKey(char* buffer, int register_missing) {
  if (!platform().Enter("KIVOCloudServiceGetApiKey", {Text(register_missing)})) {
    return fake_hos::CloudFailed();
  }
  const auto& stored = platform().cloud.stored_api_key;
  if (!stored && register_missing == 1) return fake_hos::RegisterKey(buffer);
  return fake_hos::GiveApiKey(stored, buffer);
}

int KIVOCloudServiceRegisterApiKey(char* buffer) {
  if (!platform().Enter("KIVOCloudServiceRegisterApiKey", {})) return fake_hos::CloudFailed();
  return fake_hos::RegisterKey(buffer);
}

int KIVOCloudServiceGetErrorCode(void) {
  platform().Note("KIVOCloudServiceGetErrorCode", {});
  return platform().cloud.error_code;
}

int KIVOCloudServiceActionHandler(int action) {
  if (!platform().Enter("KIVOCloudServiceActionHandler", {Text(action)}) || action != 2) {
    return fake_hos::CloudFailed();
  }
  platform().cloud.stored_api_key.reset();
  platform().cloud.error_code = 0;
  return 0;
}

int KIVOScheduleRemove(const char* command) {
  if (!platform().Enter("KIVOScheduleRemove", {Text(command)})) return -1;
  if (command == nullptr) return Failed(-1);
  std::erase(platform().schedule_entries, std::string(command));
  return 0;
}

int KIVOLogSet1(int type, int level, unsigned int event, const char* text1, const char* text2,
                const char* text3, const char* text4) {
  const std::vector<std::string> texts = {Text(text1), Text(text2), Text(text3), Text(text4)};
  if (!platform().Enter("KIVOLogSet1", {Text(type), Text(level), Text(static_cast<long>(event)),
                                        texts[0], texts[1], texts[2], texts[3]})) {
    return -1;
  }
  if (text1 == nullptr || text2 == nullptr || text3 == nullptr || text4 == nullptr) {
    return Failed(-1);
  }
  platform().events.push_back({type, level, event, texts});
  return 0;
}

int kivo_challenge_verifier_no_save(char* challenge, size_t challenge_size, char* verifier,
                                    size_t verifier_size) {
  if (!platform().Enter("kivo_challenge_verifier_no_save",
                        {std::to_string(challenge_size), std::to_string(verifier_size)})) {
    return -1;
  }
  const fake_hos::PkcePair& pair = platform().pkce;
  if (!fake_hos::FitsPkce(challenge, challenge_size, pair.challenge) ||
      !fake_hos::FitsPkce(verifier, verifier_size, pair.verifier)) {
    return Failed(-1);
  }
  std::memcpy(challenge, pair.challenge.c_str(), pair.challenge.size() + 1);
  std::memcpy(verifier, pair.verifier.c_str(), pair.verifier.size() + 1);
  return 0;
}

int KIVOScemdStatusGet(int item, int* state) {
  if (!platform().Enter("KIVOScemdStatusGet", {Text(item)})) return -1;
  if (state == nullptr) return Failed(-1);
  const auto& states = platform().device.scemd_states;
  const auto found = states.find(item);
  *state = found == states.end() ? 0 : found->second;
  return 0;
}

int KIVOSysNotifySendNotifiction(const char* tag, const KLIBCSZHASH* params) {
  if (!platform().Enter("KIVOSysNotifySendNotifiction",
                        {Text(tag), params == nullptr ? "(null)" : fake_hos::PairText(*params)})) {
    return -1;
  }
  if (tag == nullptr || params == nullptr) return Failed(-1);
  platform().notifications.push_back({tag, {params->entries.begin(), params->entries.end()}});
  return 0;
}

int KIVOZoneGet(char* buffer, int size, int* needed) {
  if (!platform().Enter("KIVOZoneGet", {Text(size)})) return -1;
  const auto& zone = platform().device.zone;
  if (buffer == nullptr || needed == nullptr || !zone) return Failed(-1);
  *needed = static_cast<int>(zone->size()) + 1;
  if (size < *needed) return Failed(-1);
  CopyOut(*zone, buffer, size);
  return 0;
}

int KIVOZoneGetInfo(const char* zone, KLIBCSZHASH* info) {
  if (!platform().Enter("KIVOZoneGetInfo", {Text(zone)})) return -1;
  if (zone == nullptr || info == nullptr) return Failed(-1);
  const auto& table = platform().device.zone_table;
  const auto found = table.find(zone);
  if (found == table.end()) return Failed(0);
  for (const auto& [name, value] : found->second) fake_hos::SetInHash(*info, name, value);
  return static_cast<int>(found->second.size());
}
}

namespace KIVO::KIVOCrond {

ConfigManager::ConfigManager(const std::string& name, bool flag) : name_(name) {
  platform().Note("ConfigManager::ConfigManager", {name, flag ? "true" : "false"});
}

bool ConfigManager::Save(const Json::Value& jobs) {
  if (!platform().Enter("ConfigManager::Save", {name_})) return false;
  if (!jobs.isArray() || !std::all_of(jobs.begin(), jobs.end(), fake_hos::IsJob)) {
    return Failed(false);
  }
  platform().crond_lists[name_] = jobs;
  return true;
}

bool ConfigManager::Remove() {
  if (!platform().Enter("ConfigManager::Remove", {name_})) return false;
  platform().crond_lists.erase(name_);
  return true;
}

}  // namespace KIVO::KIVOCrond
