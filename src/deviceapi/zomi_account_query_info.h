// The account query: the linked account's profile, from the record or from the account server.
#pragma once

#include <json/value.h>

#include "deviceapi/device_api_flow.h"

namespace nodelink {

class RecordChange;  // account/record_change.h

enum class Refresh { kNo, kYes };

// Fills `output`, an empty object of the caller's, with the profile. The server is asked only when
// the record was last queried 300 seconds ago or more with kYes for `refresh`, 86400 seconds or
// more with kNo; its answer goes into the record, unless that names another link by then. An answer
// that the device is no longer accepted removes the record. kYes for `quick` shortens the request's
// time limits (deviceapi/zomi_https_req_send.h). Returns 0, or -1 (logged) with the last error code
// set; the record is then as it was, unless it was removed.
[[nodiscard]] int ZomiAccountQueryInfo(Json::Value& output, Refresh refresh, Quick quick);

// The same as a step of a flow that changes the record: a query that fails after it changed the
// record takes all of `change` back, and the flow can do so later.
[[nodiscard]] int ZomiAccountQueryInfo(Json::Value& output, Refresh refresh, Quick quick,
                                       RecordChange& change);

}  // namespace nodelink
