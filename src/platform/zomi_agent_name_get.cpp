#include "platform/zomi_agent_name_get.h"

#include "core/error_code.h"
#include "core/log.h"
#include "klib/device.h"

namespace nodelink {
namespace {

constexpr char kProduct[] = "zomi";

// The place of this line in the log is fixed: administrators' filters know it.
constexpr LogSite kFailureSite{"zomi_agent_name_get", 17};

}  // namespace

int DeviceApiUserAgentGet(char* buffer, int size) {
  if (buffer == nullptr || size <= 0) return Fail(kWrongParameters);
  if (KLIBHsinfoUserAgentGet(kProduct, buffer, size) < 0) {
    LogError(kFailureSite, "KLIBHsinfoUserAgentGet failed, kivoerr=[0x%04X %s:%d]",
             PLATFORM_ERROR_TRIPLE);
  }
  return 0;
}

}  // namespace nodelink
