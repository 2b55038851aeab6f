// The module that sends requests: whatever needs libcurl or OpenSSL, in one shared object. The
// programs load it when the first request is due, because loading libcurl and all that it links
// takes longer than a run that sends nothing.
#pragma once

#include "deviceapi/zomi_https_req_send.h"
#include "pkce/http_request.h"

namespace nodelink {

inline constexpr char kHttpModulePath[] = "/usr/kivo/lib/nodelink_http.so";

// The module's one symbol. Its number grows with every change of HttpModule or of what that names,
// so that a program never calls a module of another make.
inline constexpr char kHttpModuleSymbol[] = "NodelinkHttpModule1";

struct HttpModule {
  decltype(&DeviceApiSend) device_api_send;
  decltype(&Post) post;
};

using HttpModuleEntry = const HttpModule*();

}  // namespace nodelink
