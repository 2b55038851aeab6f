// Apart from the other codes: the worker that talks to the network has those, and no cloud service.
#include "core/error_code.h"
#include "kivo/cloudservice.h"

namespace nodelink {

std::uint32_t CloudServiceErrorToCode() {
  switch (KIVOCloudServiceGetErrorCode()) {
    case 0: return kSuccess;
    case 1: return kNetworkFailed;
    default: return kGenericError;
  }
}

}  // namespace nodelink
