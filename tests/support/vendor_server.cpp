#include "tests/support/vendor_server.h"

#include <algorithm>
#include <iterator>
#include <stdexcept>

#include "tests/support/platform_fixture.h"

namespace {

constexpr char kCaBundle[] = "/etc/ssl/certs/ca-certificates.crt";
constexpr std::uint16_t kPort = 443;

const std::vector<std::string>& Names() {
  static const std::vector<std::string> names = {
      "account.veltrix.example", "identity.veltrix.example", "account.test.veltrix.example",
      "identity.test.veltrix.example", "localhost"};
  return names;
}

}  // namespace

VendorServer::VendorServer()
    : authority_(devcloud::Authority::Make("test authority")),
      server_({.port = kPort, .tls = devcloud::TlsSettings{authority_.Issue({.names = Names()})}},
              [this](const devcloud::Request& request) { return Handle(request); }) {
  test_files::Write(kCaBundle, authority_.certificate_pem());
}

void VendorServer::Answer(const std::string& path, devcloud::Response response) {
  AnswerInTurn(path, {std::move(response)});
}

void VendorServer::Answer(const std::string& path, int status, const std::string& body) {
  Answer(path, devcloud::Response{.status = status, .body = body});
}

void VendorServer::AnswerInTurn(const std::string& path,
                                const std::vector<devcloud::Response>& responses) {
  const std::lock_guard lock(mutex_);
  answers_[path].assign(responses.begin(), responses.end());
}

void VendorServer::Meanwhile(const std::string& path, std::function<void()> event) {
  const std::lock_guard lock(mutex_);
  events_[path] = std::move(event);
}

void VendorServer::Show(devcloud::TlsChoice choice) {
  server_.SetTls(devcloud::MakeTlsSettings(authority_, Names(), choice));
}

std::vector<devcloud::Request> VendorServer::requests(const std::string& path) const {
  const auto all = requests();
  std::vector<devcloud::Request> found;
  std::copy_if(all.begin(), all.end(), std::back_inserter(found),
               [&path](const devcloud::Request& request) { return request.path == path; });
  return found;
}

std::vector<std::string> VendorServer::Targets() const {
  std::vector<std::string> targets;
  for (const devcloud::Request& request : requests()) {
    targets.push_back(request.method + " https://" + request.HeaderOr("Host") + request.target);
  }
  return targets;
}

devcloud::Request VendorServer::OnlyRequest(const std::string& path) const {
  const auto found = requests(path);
  if (found.size() != 1) {
    throw std::runtime_error(std::to_string(found.size()) + " requests of " + path + " came");
  }
  return found.front();
}

devcloud::Response VendorServer::Handle(const devcloud::Request& request) {
  const std::lock_guard lock(mutex_);
  if (const auto event = events_.extract(request.path)) event.mapped()();
  const auto found = answers_.find(request.path);
  if (found == answers_.end() || found->second.empty()) {
    return {.status = 404, .body = "nothing here"};
  }
  devcloud::Response response = found->second.front();
  if (found->second.size() > 1) found->second.pop_front();
  return response;
}
