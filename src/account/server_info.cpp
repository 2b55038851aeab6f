#include "account/server_info.h"

#include <array>
#include <string_view>

#include "account/server_hosts.h"
#include "account/user.h"
#include "core/log.h"
#include "core/zomi_exception.h"
#include "klibc/keyvalue.h"

namespace nodelink {

class ServerInfoImpl {
 public:
  bool IsTest() const;
  std::string BuiltInHost(const server_hosts::Endpoint& endpoint) const {
    return IsTest() ? endpoint.test : endpoint.production;
  }
};

namespace {

// The read-only defaults of the system configuration: the switch is the factory's, not the user's.
constexpr char kDefaultsPath[] = "/etc.defaults/kivoinfo.conf";
constexpr char kTestSwitchKey[] = "kivopkg_server";

// The record's host of `key`, empty when it has none; `failure` is logged when it cannot be read.
std::string UserDefinedHost(const TextKey& key, LogSite site, const char* failure) {
  try {
    return User().Get(key);
  } catch (const ZomiException&) {
    LogError(site, "%s", failure);
    return "";
  }
}

}  // namespace

bool ServerInfoImpl::IsTest() const {
  std::array<char, 64> value{};
  return KLIBCFileGetKeyValue(kDefaultsPath, kTestSwitchKey, value.data(),
                              static_cast<int>(value.size()), 0) >= 1 &&
         std::string_view(value.data()) == "test";
}

ServerInfo::ServerInfo() : impl_(std::make_unique<ServerInfoImpl>()) {}

ServerInfo::~ServerInfo() = default;

bool ServerInfo::IsTest() const { return impl_->IsTest(); }

std::string ServerInfo::PaymentHost() const { return impl_->BuiltInHost(server_hosts::kPayment); }

std::string ServerInfo::AccountHost() const {
  const std::string host =
      UserDefinedHost(record::kAccountHost, Here(), "Failed to get user defined account host");
  return host.empty() ? impl_->BuiltInHost(server_hosts::kAccount) : host;
}

std::string ServerInfo::IdentityHost() const {
  const std::string host =
      UserDefinedHost(record::kIdentityHost, Here(), "Failed to get user defined identity host");
  return host.empty() ? impl_->BuiltInHost(server_hosts::kIdentity) : host;
}

}  // namespace nodelink
