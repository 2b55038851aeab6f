// What the cloud knows, as the control interface shows it. Accounts, devices and faults have their
// JSON with them in state.
#pragma once

#include <json/value.h>

#include "devcloud/http/tls_switch.h"
#include "devcloud/state/clients.h"
#include "devcloud/state/held_answers.h"
#include "devcloud/state/request_log.h"
#include "devcloud/state/token_store.h"

namespace devcloud {

[[nodiscard]] Json::Value ToJson(const LogEntry& entry);
[[nodiscard]] Json::Value ToJson(const HeldAnswer& held);
[[nodiscard]] Json::Value ToJson(TlsChoice choice);
[[nodiscard]] Json::Value ToJson(const Client& client);
[[nodiscard]] Json::Value ToJson(const Family& family);
[[nodiscard]] Json::Value ToJson(const TokenInfo& token);

}  // namespace devcloud
