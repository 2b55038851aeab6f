// One TLS server in the place of the vendor's account and identity hosts, at their own names and
// port, with an authority that the device trusts.
#pragma once

#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "devcloud/http/certificates.h"
#include "devcloud/http/https_server.h"
#include "devcloud/http/tls_switch.h"

class VendorServer {
 public:
  // Listens on 127.0.0.1:443 and makes its authority the only one that the device trusts.
  VendorServer();

  // What requests of `path` are answered from now on. A path that nothing was said about is
  // answered with status 404.
  void Answer(const std::string& path, devcloud::Response response);
  void Answer(const std::string& path, int status, const std::string& body);

  // The answers to the next requests of `path`, in turn; the last one stays.
  void AnswerInTurn(const std::string& path, const std::vector<devcloud::Response>& responses);

  // What happens in the world while the next request of `path` waits for its answer.
  void Meanwhile(const std::string& path, std::function<void()> event);

  // A new certificate and TLS version for the connections from now on.
  void Show(devcloud::TlsChoice choice);

  [[nodiscard]] std::vector<devcloud::Request> requests() const { return server_.requests(); }
  [[nodiscard]] std::vector<devcloud::Request> requests(const std::string& path) const;

  // "POST https://HOST/PATH" of every request, in order.
  [[nodiscard]] std::vector<std::string> Targets() const;

  // The one request of `path`.
  [[nodiscard]] devcloud::Request OnlyRequest(const std::string& path) const;

  void ClearRequests() { server_.ClearRequests(); }
  devcloud::HttpsServer& https() { return server_; }

 private:
  devcloud::Response Handle(const devcloud::Request& request);

  const devcloud::Authority authority_;
  std::mutex mutex_;  // of what follows, which connections' threads use
  std::map<std::string, std::deque<devcloud::Response>> answers_;
  std::map<std::string, std::function<void()>> events_;
  devcloud::HttpsServer server_;
};
