#include "devcloud/http/request_reader.h"

#include <array>
#include <boost/asio/buffer.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/string_body.hpp>
#include <stdexcept>

namespace devcloud {
namespace {

namespace http = boost::beast::http;
using Parser = http::request_parser<http::string_body>;

template <typename View>
std::string ToString(const View& text) {
  return std::string(text.data(), text.size());
}

ReadOutcome ToOutcome(const boost::beast::error_code& error) {
  if (error == http::error::header_limit) return ReadOutcome::kHeaderTooLarge;
  if (error == http::error::body_limit) return ReadOutcome::kBodyTooLarge;
  return ReadOutcome::kMalformed;
}

Request ToRequest(Parser& parser) {
  auto& message = parser.get();
  Request request;
  request.method = ToString(message.method_string());
  request.target = ToString(message.target());
  const std::size_t mark = request.target.find('?');
  request.path = request.target.substr(0, mark);
  if (mark != std::string::npos) request.query = request.target.substr(mark + 1);
  for (const auto& field : message) {
    request.headers.push_back({ToString(field.name_string()), ToString(field.value())});
  }
  request.body = std::move(message.body());
  return request;
}

// The parser throws where it has no error code: at a field beyond 64 KiB.
std::size_t Put(Parser& parser, const std::string& bytes, boost::beast::error_code& error) {
  try {
    return parser.put(boost::asio::buffer(bytes), error);
  } catch (const std::length_error&) {
    error = http::error::header_limit;
    return 0;
  }
}

bool WantsContinue(Parser& parser) {
  const auto found = parser.get().find(http::field::expect);
  return found != parser.get().end() &&
         EqualsIgnoringCase(ToString(found->value()), "100-continue");
}

}  // namespace

RequestReader::RequestReader(Connection& connection, RequestLimits limits)
    : connection_(connection), limits_(limits) {}

bool RequestReader::ReadMore() {
  std::array<char, 16384> chunk{};
  const std::size_t got = connection_.Read(chunk.data(), chunk.size());
  unparsed_.append(chunk.data(), got);
  return got > 0;
}

ReadOutcome RequestReader::Next(Request& request, bool& keep_alive) {
  Parser parser;
  parser.header_limit(limits_.header_bytes);
  parser.body_limit(limits_.body_bytes);
  parser.eager(true);
  bool continued = false;
  while (!parser.is_done()) {
    if (unparsed_.empty() && !ReadMore()) return ReadOutcome::kClosed;
    boost::beast::error_code error;
    const std::size_t used = Put(parser, unparsed_, error);
    unparsed_.erase(0, used);
    if (error && error != http::error::need_more) return ToOutcome(error);
    if (!continued && parser.is_header_done() && !parser.is_done() && WantsContinue(parser)) {
      continued = true;
      if (!connection_.Write("HTTP/1.1 100 Continue\r\n\r\n")) return ReadOutcome::kClosed;
    }
    if (error == http::error::need_more && !ReadMore()) return ReadOutcome::kClosed;
  }
  keep_alive = parser.keep_alive();
  request = ToRequest(parser);
  return ReadOutcome::kRequest;
}

}  // namespace devcloud
