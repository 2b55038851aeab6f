// Sends answers, honest and faulty ones.
#pragma once

#include "devcloud/http/connection.h"
#include "devcloud/http/http_message.h"

namespace devcloud {

// What the connection is good for after an answer.
enum class AfterAnswer {
  kReuse,
  kCloseGently,
  kCut,  // gone already, or to be cut off without a goodbye
};

enum class KeepAlive { kNo, kYes };

// Sends the answer to `request`, with its hold, delay and delivery.
[[nodiscard]] AfterAnswer SendResponse(Connection& connection, const Request& request,
                                       const Response& response, KeepAlive keep_alive);

}  // namespace devcloud
