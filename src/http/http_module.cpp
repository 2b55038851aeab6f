#include "http/http_module.h"

extern "C" __attribute__((visibility("default"))) const nodelink::HttpModule*
NodelinkHttpModule1() {
  static constexpr nodelink::HttpModule kModule = {nodelink::DeviceApiSend, nodelink::Post};
  return &kModule;
}
