// Reads requests from a connection, one after the other.
#pragma once

#include <cstdint>
#include <string>

#include "devcloud/http/connection.h"
#include "devcloud/http/http_message.h"

namespace devcloud {

struct RequestLimits {
  std::uint32_t header_bytes = 1U << 20U;
  std::uint64_t body_bytes = 1U << 20U;
};

enum class ReadOutcome {
  kRequest,
  kClosed,  // the peer is gone, or silent for too long
  kMalformed,
  kHeaderTooLarge,
  kBodyTooLarge,
};

class RequestReader {
 public:
  // `connection` must outlive the reader.
  RequestReader(Connection& connection, RequestLimits limits);

  // Fills `request` when the outcome is kRequest. `keep_alive` tells whether the peer wants to send
  // another one on this connection.
  [[nodiscard]] ReadOutcome Next(Request& request, bool& keep_alive);

 private:
  [[nodiscard]] bool ReadMore();

  Connection& connection_;
  RequestLimits limits_;
  std::string unparsed_;
};

}  // namespace devcloud
