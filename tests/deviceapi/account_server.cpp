#include "tests/deviceapi/account_server.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace {

constexpr char kCaBundle[] = "/etc/ssl/certs/ca-certificates.crt";

std::string ListText(const curl_slist* list) {
  std::string text;
  for (; list != nullptr; list = list->next) text += "[" + std::string(list->data) + "]";
  return text;
}

std::string ValueText(CURLoption option, const interpose::CurlValue& value) {
  if (std::holds_alternative<long>(value)) return std::to_string(std::get<long>(value));
  const void* pointer = std::get<void*>(value);
  switch (curl_easy_option_by_id(option)->type) {
    case CURLOT_STRING:
    case CURLOT_OBJECT: return static_cast<const char*>(pointer);
    case CURLOT_SLIST: return ListText(static_cast<const curl_slist*>(pointer));
    default: return pointer == nullptr ? "null" : "set";
  }
}

}  // namespace

AccountServer::AccountServer(std::uint16_t port)
    : authority_(devcloud::Authority::Make("test authority")),
      handler_([](const devcloud::Request&) { return devcloud::Response{}; }),
      server_({.port = port,
               .tls = devcloud::TlsSettings{authority_.Issue({.names = CertifiedNames()})}},
              [this](const devcloud::Request& request) {
                const std::lock_guard lock(mutex_);
                return handler_(request);
              }) {
  test_files::Write(kCaBundle, authority_.certificate_pem());
}

const std::vector<std::string>& AccountServer::CertifiedNames() {
  static const std::vector<std::string> names = {
      "127.0.0.1", "localhost", "account.veltrix.example", "account.test.veltrix.example"};
  return names;
}

void AccountServer::Answer(devcloud::Response response) {
  Handle([response = std::move(response)](const devcloud::Request&) { return response; });
}

void AccountServer::Answer(int status, const std::string& body) {
  Answer(devcloud::Response{.status = status, .body = body});
}

void AccountServer::Handle(devcloud::Handler handler) {
  const std::lock_guard lock(mutex_);
  handler_ = std::move(handler);
}

void AccountServer::Show(devcloud::TlsChoice choice) {
  server_.SetTls(devcloud::MakeTlsSettings(authority_, CertifiedNames(), choice));
}

devcloud::Request AccountServer::OnlyRequest() const {
  const auto all = requests();
  if (all.size() != 1) throw std::runtime_error(std::to_string(all.size()) + " requests came");
  return all.front();
}

DeviceApiTest::DeviceApiTest() {
  hooks().sleep = [this](unsigned int seconds) {
    steps_.push_back("sleep " + std::to_string(seconds));
  };
  hooks().curl_setopt = [this](CURLoption option, const interpose::CurlValue& value) {
    return OnOption(option, value);
  };
  hooks().curl_perform = [this](CURL*) { return OnPerform(); };
}

int DeviceApiTest::Attempts() const {
  return static_cast<int>(std::count(steps_.begin(), steps_.end(), "perform"));
}

void DeviceApiTest::ScriptAttempts(std::vector<CURLcode> results) { script_ = std::move(results); }

std::optional<CURLcode> DeviceApiTest::OnOption(CURLoption option,
                                                const interpose::CurlValue& value) {
  const std::string name = curl_easy_option_by_id(option)->name;
  options_.push_back(name + "=" + ValueText(option, value));
  if (option == CURLOPT_IPRESOLVE) steps_.push_back(options_.back());
  return option == failing_option_ ? std::optional(CURLE_OUT_OF_MEMORY) : std::nullopt;
}

std::optional<CURLcode> DeviceApiTest::OnPerform() {
  steps_.emplace_back("perform");
  if (script_.empty()) return std::nullopt;
  const CURLcode result = script_.front();
  script_.erase(script_.begin());
  return result == CURLE_OK ? std::nullopt : std::optional(result);
}
