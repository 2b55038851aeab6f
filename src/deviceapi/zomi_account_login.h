// The password login: links the device to an account by the account's identifier and password.
#pragma once

#include <json/value.h>

#include <string>

#include "deviceapi/device_api_flow.h"

namespace nodelink {

// On success the record names the account, the report job is installed, the plug-ins are told, the
// profile is queried, and `result` holds the server's answer. An API key that the server does not
// know is registered anew and the login tried once more. Returns 0, or -1 (logged) with the last
// error code set; the device is then as it was.
[[nodiscard]] int ZomiAccountLogin(const std::string& identifier, const std::string& password,
                                   Json::Value& result, Quick quick);

}  // namespace nodelink
