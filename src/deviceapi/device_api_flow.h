// The steps that the flows of the device API share: find the server, name the device, send one
// form, read one JSON answer. Each logs its failure as coming from `site`, the flow's own place,
// and sets the last error code.
#pragma once

#include <json/value.h>

#include <string>
#include <utility>
#include <vector>

#include "core/error_code.h"
#include "core/log.h"
#include "core/platform_owner.h"

namespace nodelink {

enum class Quick { kNo, kYes };  // deviceapi/zomi_https_req_send.h

// Names and values, borrowed: one may be a password, of which there should be no copy on the way.
using FormFields = std::vector<std::pair<const char*, const char*>>;

// The account server's base URL. Returns 0, or -1 with kNoServerConfig.
[[nodiscard]] int FindAccountHost(LogSite site, std::string& host);

// The serial number, at most 35 characters. Returns 0, or -1 with kNoSerialNumber.
[[nodiscard]] int ReadSerialNumber(LogSite site, std::string& serial);

// The fields in their order; null with kSystemError when there is no memory.
[[nodiscard]] SzHash MakeForm(LogSite site, const FormFields& fields);

// Posts `form` to `path` on `host`; `answer` receives the body. Returns 0, or -1 with
// kRequestNotSent.
[[nodiscard]] int SendForm(LogSite site, const std::string& host, const char* path,
                           KLIBCSZHASH* form, Quick quick, std::string& answer);

// Returns 0, or -1 with kWrongJsonFormat.
[[nodiscard]] int ParseAnswer(LogSite site, const std::string& text, Json::Value& answer);

}  // namespace nodelink
