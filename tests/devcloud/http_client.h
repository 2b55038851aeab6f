// The client side for tests of the development cloud: libcurl, and raw bytes over a plain socket.
#pragma once

#include <curl/curl.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace devcloud_test {

struct ClientRequest {
  std::string url = {};
  std::string method = {};                // empty: GET, or POST with a body
  std::optional<std::string> body = {};   // sent as a form unless the headers say otherwise
  std::vector<std::string> headers = {};  // "Name: value"
  std::size_t most_bytes = 4U << 20U;     // the transfer is aborted beyond
};

struct ClientAnswer {
  CURLcode result = CURLE_OK;
  long status = 0;
  std::string head = {};
  std::string body = {};
  long connections = 0;  // new connections that the transfer needed
  // The value of the first header of that name (exact case), else empty.
  [[nodiscard]] std::string Header(std::string_view name) const;
};

// Keeps its connection between requests. Follows no redirects.
class HttpClient {
 public:
  // Trusts nothing but this authority.
  explicit HttpClient(std::string authority_pem = {});

  [[nodiscard]] ClientAnswer Send(const ClientRequest& request);

 private:
  struct Closer {
    void operator()(CURL* handle) const { curl_easy_cleanup(handle); }
  };
  std::string authority_pem_;
  std::unique_ptr<CURL, Closer> handle_;
};

// Sends these bytes to 127.0.0.1 and gives all that comes back until the peer closes.
[[nodiscard]] std::string ExchangeRaw(std::uint16_t port, std::string_view bytes);

}  // namespace devcloud_test
