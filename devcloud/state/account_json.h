// Accounts and devices as JSON.
#pragma once

#include <json/value.h>

#include "devcloud/http/json_fields.h"
#include "devcloud/state/account.h"

namespace devcloud {

// What a device is told about its account: the profile and notification preferences.
[[nodiscard]] Json::Value ProfileToJson(const Account& account);

// Everything but the password.
[[nodiscard]] Json::Value ToJson(const Account& account);
[[nodiscard]] Json::Value ToJson(const Device& device);

// Takes the members that are there. Throw BadInput.
void ReadFields(JsonFields& fields, Account& account);
void ReadFields(JsonFields& fields, Device& device);

}  // namespace devcloud
