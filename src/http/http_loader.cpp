// What the programs call to send a request: it loads the module and passes the call on.

#include <string>
#include <tuple>

#include "base/module.h"
#include "core/error_code.h"
#include "core/log.h"
#include "core/platform_owner.h"
#include "deviceapi/zomi_agent_name_get.h"
#include "http/http_module.h"
#include "klib/device.h"
#include "klibc/string.h"

namespace nodelink {
namespace {

constexpr int kFailedInit = 2;  // libcurl's CURLE_FAILED_INIT

// The module calls these in the program that loads it. Naming them here makes them part of every
// program that sends.
[[gnu::used]] const std::tuple kCalledByModule{&DeviceApiUserAgentGet,
                                               &KLIBCErrGet,
                                               &KLIBCErrorGetFile,
                                               &KLIBCErrorGetLine,
                                               &KLIBCStrCat,
                                               &KLIBCStrTrimSpace,
                                               &KLIBCSzHashEnumKey,
                                               &KLIBCSzHashGetValue,
                                               &KLIBCSzListAlloc,
                                               &KLIBCSzListFree,
                                               &KLIBCSzListGet,
                                               &KLIBGetSerialNumber,
                                               &LogError,
                                               &SetLastErrorCode};

// Null, logged, when it cannot be loaded; `why` then holds the reason.
const HttpModule* LoadModule(std::string& why) {
  const auto entry = reinterpret_cast<HttpModuleEntry*>(
      base::ModuleSymbol(kHttpModulePath, kHttpModuleSymbol, why));
  if (entry == nullptr) {
    LogError(Here(), "Failed to load the HTTP module: %s", why.c_str());
    return nullptr;
  }
  return entry();
}

const HttpModule* TheModule(std::string& why) {
  static const HttpModule* module = nullptr;
  if (module == nullptr) {
    module = LoadModule(why);
  }
  return module;
}

}  // namespace

int DeviceApiSend(const DeviceApiRequest* request, DeviceApiResponse* response) {
  std::string why;
  const HttpModule* module = TheModule(why);
  if (module == nullptr) {
    if (response != nullptr) {
      *response = DeviceApiResponse{};
    }
    return Fail(kRequestNotSent);
  }
  return module->device_api_send(request, response);
}

HttpAnswer Post(const HttpRequest& request) {
  std::string why;
  const HttpModule* module = TheModule(why);
  return module == nullptr ? HttpAnswer{kFailedInit, why, 0, ""} : module->post(request);
}

}  // namespace nodelink
