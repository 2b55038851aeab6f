#include "deviceapi/device_api_flow.h"

#include <array>
#include <memory>

#include "core/json.h"
#include "deviceapi/zomi_https_req_send.h"
#include "kivo/zomi_server_config.h"
#include "klib/device.h"

namespace nodelink {
namespace {

constexpr std::size_t kSerialSize = 36;
constexpr int kFormSize = 1024;

struct ResponseFree {
  void operator()(DeviceApiResponse* response) const { DeviceApiResponseFree(response); }
};
using ResponseOwner = std::unique_ptr<DeviceApiResponse, ResponseFree>;

}  // namespace

int FindAccountHost(LogSite site, std::string& host) {
  KIVOZOMI_SERVER_CONFIG servers{};
  if (KIVOZOMIServerConfigGet(&servers) < 0) {
    LogError(site, "KIVOZOMIServerConfigGet, code=%u", LastErrorCode());
    return Fail(kNoServerConfig);
  }
  host = servers.account_host;
  return 0;
}

int ReadSerialNumber(LogSite site, std::string& serial) {
  std::array<char, kSerialSize> buffer{};
  if (KLIBGetSerialNumber(buffer.data(), static_cast<int>(buffer.size())) < 0) {
    LogError(site, "Failed to get serial number, err=[0x%04X %s:%d]", PLATFORM_ERROR_TRIPLE);
    return Fail(kNoSerialNumber);
  }
  serial = buffer.data();
  return 0;
}

SzHash MakeForm(LogSite site, const FormFields& fields) {
  SzHash form(KLIBCSzHashAlloc(kFormSize));
  for (const auto& [name, value] : fields) {
    if (!form || KLIBCSzHashSetValue(form.get(), name, value) < 0) {
      LogError(site, "Failed to alloc https request, err=[0x%04X %s:%d]", PLATFORM_ERROR_TRIPLE);
      SetLastErrorCode(kSystemError);
      return nullptr;
    }
  }
  return form;
}

int SendForm(LogSite site, const std::string& host, const char* path, KLIBCSZHASH* form,
             Quick quick, std::string& answer) {
  DeviceApiRequest request{};
  request.host = host.c_str();
  request.path = path;
  request.params = form;
  request.quick = quick == Quick::kYes ? 1 : 0;
  DeviceApiResponse response{};
  const int result = DeviceApiSend(&request, &response);
  const ResponseOwner owner(&response);
  if (result < 0) {
    LogError(site, "Failed to send https request. err=[0x%04X %s:%d]", PLATFORM_ERROR_TRIPLE);
    return Fail(kRequestNotSent);
  }
  answer = response.body;
  return 0;
}

int ParseAnswer(LogSite site, const std::string& text, Json::Value& answer) {
  if (!json::fromString(text, answer)) {
    LogError(site, "Failed to parse json: %s", text.c_str());
    return Fail(kWrongJsonFormat);
  }
  return 0;
}

}  // namespace nodelink
