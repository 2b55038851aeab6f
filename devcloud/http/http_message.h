// What travels over a connection of the development cloud: requests as they were received, answers
// as they are to be sent, and the faults an answer can carry.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "devcloud/http/event.h"

namespace devcloud {

struct Header {
  std::string name = {};
  std::string value = {};
};

// One request, exactly as it came: header names keep their case, the body is the bytes after
// removing a chunked transfer encoding (nothing else is decoded).
struct Request {
  std::string method = {};
  std::string target = {};  // as sent: path and, behind '?', the query
  std::string path = {};    // target up to '?', not decoded
  std::string query = {};   // target behind '?', not decoded
  std::vector<Header> headers = {};
  std::string body = {};
  std::string sni = {};          // server name of the TLS handshake; empty without one
  std::string tls_version = {};  // e.g. "TLSv1.3"; empty on a plain connection
  std::uint16_t peer_port = 0;   // equal for requests that share one connection

  // The value of the first header of that name (any case), or null.
  [[nodiscard]] const std::string* FindHeader(std::string_view name) const;
  // How many headers of that name came.
  [[nodiscard]] std::size_t CountHeaders(std::string_view name) const;
  // As FindHeader, with an empty text for an absent header.
  [[nodiscard]] std::string HeaderOr(std::string_view name) const;
};

// How the bytes of an answer reach the peer.
enum class Delivery {
  kWhole,       // as an honest server does
  kDrop,        // the connection is closed before the first byte
  kTruncate,    // the full length is announced, the connection closed after half of the body
  kEndless,     // the body is repeated (or filled up) until the peer goes away
  kSlow,        // the body trickles: slow_bytes every slow_interval
  kRaw,         // the body is all that is sent: it brings a head of its own, or none
  kRawEndless,  // as before, and again until the peer goes away
};

struct Fault {
  std::shared_ptr<const Event> hold = {};  // nothing is sent before it; ends when the server stops
  std::chrono::milliseconds delay{0};  // before the first byte; ends early when the server stops
  Delivery delivery = Delivery::kWhole;
  std::size_t slow_bytes = 1;
  std::chrono::milliseconds slow_interval{100};
};

// An answer. Content-Length is added unless `headers` holds one or a Transfer-Encoding, so a test
// can lie about the length.
struct Response {
  int status = 200;
  std::vector<Header> headers = {};
  std::string body = {};
  Fault fault = {};
};

using Handler = std::function<Response(const Request&)>;

// True when both texts are equal but for the case of ASCII letters.
[[nodiscard]] bool EqualsIgnoringCase(std::string_view a, std::string_view b);

// True when an answer may carry this header: a name of token characters, a value without control
// characters.
[[nodiscard]] bool IsValidHeader(const Header& header);

// The standard reason phrase, "Unknown" for a status that has none.
[[nodiscard]] std::string_view ReasonPhrase(int status);

}  // namespace devcloud
