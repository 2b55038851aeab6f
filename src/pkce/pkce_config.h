// OAuth2 client configurations: small files of paths and a scope, made whole for this device.
#pragma once

#include <json/value.h>

#include <string>

namespace nodelink {

inline constexpr char kPkceRegisterConfigPath[] =
    "/usr/kivo/etc.defaults/veltrix-account/config/pkce_register.conf";
inline constexpr char kPkceLoginConfigPath[] =
    "/usr/kivo/etc.defaults/veltrix-account/config/pkce_login.conf";

// The finished configuration of the file `path`: an object of the texts "client_id", "scope",
// "audience", "auth_endpoint", "token_endpoint", "end_session_endpoint", "login_redirect_uri" and
// "logout_redirect_uri"; what the file does not have is empty. "$sn$" and "$mac$" in the scope
// become the device's serial number and MAC address. Throws ZomiException with kWrongJsonFormat
// when the file cannot be read or parsed, kNoSerialNumber, kNoMacAddress.
Json::Value LoadPkceConfig(const std::string& path);
Json::Value LoadPkceRegisterConfig();
Json::Value LoadPkceLoginConfig();

// The same from the parsed file.
Json::Value BuildPkceConfig(const Json::Value& raw);

// The "client_id" of the login configuration. Throws as LoadPkceConfig does.
std::string GetLoginClientId();

}  // namespace nodelink
