// Which of the vendor's servers this device talks to.
#pragma once

#include <memory>
#include <string>

namespace nodelink {

class ServerInfoImpl;

// Base URLs: "https://" and a host name, no path, no slash at the end. Nothing is kept: each call
// reads the device's files afresh. Nothing here throws ZomiException.
class ServerInfo {
 public:
  ServerInfo();
  ServerInfo(const ServerInfo&) = delete;
  ServerInfo& operator=(const ServerInfo&) = delete;
  virtual ~ServerInfo();

  // Whether the device is switched to the vendor's test servers: "kivopkg_server" is "test" in
  // /etc.defaults/kivoinfo.conf. False when that cannot be read.
  bool IsTest() const;

  // The built-in host, production or test.
  std::string PaymentHost() const;

  // The host that the account was linked through, if that was a user-defined one (returned as it
  // was stored, whatever the test switch says), else the built-in host. A record that cannot be
  // read is logged and counts as one without such a host.
  std::string AccountHost() const;
  std::string IdentityHost() const;

 private:
  std::unique_ptr<ServerInfoImpl> impl_;
};

}  // namespace nodelink
