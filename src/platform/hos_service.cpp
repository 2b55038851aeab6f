#include "platform/hos_service.h"

#include <array>

#include "core/error_code.h"
#include "core/log.h"
#include "core/platform_owner.h"
#include "core/zomi_exception.h"
#include "kivo/cloudservice.h"
#include "kivo/sysnotify.h"
#include "klib/device.h"
#include "platform/zomi_agent_name_get.h"

namespace nodelink {
namespace {

constexpr int kSerialSize = 36;
constexpr int kMacAddressSize = 24;
constexpr int kUserAgentSize = 256;
constexpr int kApiKeySize = 1024;
constexpr int kRegisterMissing = 1;
constexpr int kParamsSize = 1024;

// The places of these lines in the log are fixed: administrators' filters know them.
constexpr LogSite kSerialSite{"hos_service", 24};
constexpr LogSite kMacAddressSite{"hos_service", 35};
constexpr LogSite kUserAgentSite{"hos_service", 45};
constexpr LogSite kApiKeySite{"hos_service", 57};
constexpr LogSite kRegisterSite{"hos_service", 69};

}  // namespace

std::string HosService::GetSerialNumber() {
  std::array<char, kSerialSize> buffer{};
  if (KLIBGetSerialNumber(buffer.data(), kSerialSize) < 0) {
    LogError(kSerialSite, "Failed to get serial number, err=[0x%04X %s:%d]", PLATFORM_ERROR_TRIPLE);
    throw ZomiException(kNoSerialNumber);
  }
  return buffer.data();
}

std::string HosService::GetMacAddress() {
  std::array<char, kMacAddressSize> buffer{};
  if (KIVOHsinfoCloudServiceGetMacAddress(buffer.data(), kMacAddressSize) < 0) {
    LogError(kMacAddressSite, "Failed to get mac address");
    throw ZomiException(kNoMacAddress);
  }
  return buffer.data();
}

std::string HosService::GetUserAgent() {
  std::array<char, kUserAgentSize> buffer{};
  if (DeviceApiUserAgentGet(buffer.data(), kUserAgentSize) < 0) {
    LogError(kUserAgentSite, "Failed to get zomi user agent");
    throw ZomiException(kSystemError);
  }
  return buffer.data();
}

std::string HosService::GetApiKey() {
  std::array<char, kApiKeySize> buffer{};
  if (KIVOCloudServiceGetApiKey(buffer.data(), kRegisterMissing) < 0) {
    LogError(kApiKeySite, "Failed to get apikey");
    throw ZomiException(CloudServiceErrorToCode());
  }
  return buffer.data();
}

std::string HosService::RegisterApiKey() {
  std::array<char, kApiKeySize> buffer{};
  if (KIVOCloudServiceRegisterApiKey(buffer.data()) < 0) {
    LogError(kRegisterSite, "Failed to register apikey");
    throw ZomiException(CloudServiceErrorToCode());
  }
  return buffer.data();
}

void HosService::notify(const std::string& tag, const std::map<std::string, std::string>& params) {
  const SzHash hash(KLIBCSzHashAlloc(kParamsSize));
  if (!hash) {
    LogError(Here(), "Failed to notify: out of memory");
    return;
  }
  for (const auto& [placeholder, value] : params) {
    if (KLIBCSzHashSetValue(hash.get(), placeholder.c_str(), value.c_str()) < 0) {
      LogError(Here(), "Failed to set notify param: %s => %s", placeholder.c_str(), value.c_str());
    }
  }
  if (KIVOSysNotifySendNotifiction(tag.c_str(), hash.get()) < 0) {
    LogError(Here(), "Failed to send notify by KIVOSysNotifySendNotifiction");
  }
}

}  // namespace nodelink
