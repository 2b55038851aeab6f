#include "devcloud/http/response_writer.h"

#include <algorithm>

namespace devcloud {
namespace {

bool Holds(const Response& response, std::string_view name) {
  return std::any_of(
      response.headers.begin(), response.headers.end(),
      [name](const Header& header) { return EqualsIgnoringCase(header.name, name); });
}

bool MayHaveBody(const Request& request, int status) {
  return request.method != "HEAD" && status >= 200 && status != 204 && status != 304;
}

// An endless body has no length to announce: its end would be the end of the connection.
bool NeedsLength(const Response& response) {
  return response.fault.delivery != Delivery::kEndless && response.status >= 200 &&
         response.status != 204 && !Holds(response, "Content-Length") &&
         !Holds(response, "Transfer-Encoding");
}

std::string HeadOf(const Response& response, KeepAlive keep_alive) {
  std::string head = "HTTP/1.1 " + std::to_string(response.status) + " " +
                     std::string(ReasonPhrase(response.status)) + "\r\n";
  for (const Header& header : response.headers) head += header.name + ": " + header.value + "\r\n";
  if (NeedsLength(response)) {
    head += "Content-Length: " + std::to_string(response.body.size()) + "\r\n";
  }
  if (keep_alive == KeepAlive::kNo && !Holds(response, "Connection")) {
    head += "Connection: close\r\n";
  }
  return head + "\r\n";
}

AfterAnswer SendWhole(Connection& connection, const std::string& head, const std::string& body,
                      KeepAlive keep_alive) {
  if (!connection.Write(head + body)) return AfterAnswer::kCut;
  return keep_alive == KeepAlive::kYes ? AfterAnswer::kReuse : AfterAnswer::kCloseGently;
}

AfterAnswer SendHalf(Connection& connection, const std::string& head, const std::string& body) {
  (void)connection.Write(head + body.substr(0, body.size() / 2));
  return AfterAnswer::kCut;
}

AfterAnswer SendForever(Connection& connection, const std::string& head, const std::string& body) {
  constexpr std::size_t kBlock = 16384;
  std::string block = body.empty() ? std::string(kBlock, 'x') : body;
  while (block.size() < kBlock) block += block;
  if (!connection.Write(head)) return AfterAnswer::kCut;
  while (connection.Pause(std::chrono::milliseconds(0)) && connection.Write(block)) {
  }
  return AfterAnswer::kCut;
}

AfterAnswer SendSlowly(Connection& connection, const std::string& head, const Response& response,
                       KeepAlive keep_alive) {
  if (!connection.Write(head)) return AfterAnswer::kCut;
  const std::size_t step = std::max<std::size_t>(response.fault.slow_bytes, 1);
  for (std::size_t sent = 0; sent < response.body.size(); sent += step) {
    if (!connection.Pause(response.fault.slow_interval) ||
        !connection.Write(std::string_view(response.body).substr(sent, step))) {
      return AfterAnswer::kCut;
    }
  }
  return keep_alive == KeepAlive::kYes ? AfterAnswer::kReuse : AfterAnswer::kCloseGently;
}

}  // namespace

AfterAnswer SendResponse(Connection& connection, const Request& request, const Response& response,
                         KeepAlive keep_alive) {
  if (response.fault.hold && !connection.WaitFor(*response.fault.hold)) return AfterAnswer::kCut;
  if (!connection.Pause(response.fault.delay)) return AfterAnswer::kCut;
  if (response.fault.delivery == Delivery::kRaw) {
    return SendWhole(connection, "", response.body, KeepAlive::kNo);
  }
  if (response.fault.delivery == Delivery::kRawEndless) {
    return SendForever(connection, "", response.body);
  }
  const std::string head = HeadOf(response, keep_alive);
  if (!MayHaveBody(request, response.status)) return SendWhole(connection, head, "", keep_alive);
  switch (response.fault.delivery) {
    case Delivery::kWhole: return SendWhole(connection, head, response.body, keep_alive);
    case Delivery::kDrop: return AfterAnswer::kCut;
    case Delivery::kTruncate: return SendHalf(connection, head, response.body);
    case Delivery::kEndless: return SendForever(connection, head, response.body);
    case Delivery::kSlow: return SendSlowly(connection, head, response, keep_alive);
    case Delivery::kRaw:
    case Delivery::kRawEndless: break;  // sent already, without a head
  }
  return AfterAnswer::kCut;
}

}  // namespace devcloud
