#include "devcloud/cloud.h"

#include <algorithm>
#include <chrono>
#include <ctime>
#include <mutex>
#include <stdexcept>
#include <utility>

#include "devcloud/api/account_api.h"
#include "devcloud/api/oauth.h"
#include "devcloud/control/control.h"
#include "devcloud/http/listener.h"
#include "devcloud/http/router.h"
#include "devcloud/state/state_folder.h"

namespace devcloud {
namespace {

std::int64_t SystemMilliseconds() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

// The identity host's address, where the hosts have one.
std::string IssuerAmong(const std::vector<std::string>& hosts) {
  const auto found = std::find_if(hosts.begin(), hosts.end(), [](const std::string& host) {
    return host.rfind("identity.", 0) == 0;
  });
  if (found != hosts.end()) return "https://" + *found;
  return hosts.empty() ? "https://localhost" : "https://" + hosts.front();
}

Response FaultyAnswer(const FaultRule& rule, Response handled) {
  if (!rule.status) {
    handled.fault = rule.fault;
    return handled;
  }
  return {.status = *rule.status, .headers = rule.headers, .body = rule.body, .fault = rule.fault};
}

}  // namespace

std::vector<std::string> DefaultHosts() {
  return {"payment.veltrix.example",     "payment.test.veltrix.example",
          "account.veltrix.example",     "account.test.veltrix.example",
          "identity.veltrix.example",    "identity.test.veltrix.example",
          "cloudservice.veltrix.example"};
}

std::int64_t SystemSeconds() { return std::time(nullptr); }

class Cloud::Impl {
 public:
  Impl(Cloud& cloud, CloudOptions options);
  ~Impl() { Stop(); }

  void Start();
  void Stop();
  void SetTls(TlsChoice choice);
  [[nodiscard]] TlsChoice tls() const;

  [[nodiscard]] HttpsServer& server() { return *server_; }
  [[nodiscard]] HttpsServer& control() { return *control_server_; }
  [[nodiscard]] Store& store() { return store_; }
  [[nodiscard]] FaultBook& faults() { return faults_; }
  [[nodiscard]] HeldAnswers& held() { return held_; }
  [[nodiscard]] RequestLog& log() { return log_; }
  [[nodiscard]] Clients& clients() { return clients_; }
  [[nodiscard]] TokenStore& tokens() { return tokens_; }
  [[nodiscard]] const Authority& authority() const { return authority_; }
  [[nodiscard]] std::int64_t Now() const { return options_.clock(); }

 private:
  [[nodiscard]] ServerOptions PublicServerOptions() const;
  [[nodiscard]] ServerOptions ControlServerOptions() const;
  [[nodiscard]] Response Answer(const Request& request);
  [[nodiscard]] Response AnswerWithFaults(const Request& request,
                                          const std::optional<FaultRule>& rule) const;

  CloudOptions options_;
  Authority authority_;
  Database database_;
  Store store_;
  FaultBook faults_;
  HeldAnswers held_;
  RequestLog log_;
  Clients clients_;
  TokenStore tokens_;
  DeviceApi device_api_;
  AccountApi account_api_;
  Oauth oauth_;
  Router router_;
  Control control_;
  mutable std::mutex tls_mutex_;
  TlsChoice tls_;
  std::unique_ptr<HttpsServer> server_;
  std::unique_ptr<HttpsServer> control_server_;
};

Cloud::Impl::Impl(Cloud& cloud, CloudOptions options)
    : options_(std::move(options)),
      authority_(LoadOrMakeAuthority(options_.state_folder)),
      database_(DatabaseFile(options_.state_folder)),
      store_(database_),
      faults_(database_),
      log_(database_),
      clients_(database_, options_.hosts),
      tokens_(database_, options_.clock),
      device_api_(store_, options_.clock),
      account_api_(store_, clients_, tokens_, device_api_),
      oauth_(store_, clients_, tokens_, options_.clock,
             {.issuer = IssuerAmong(options_.hosts),
              .signing_key_pem = LoadOrMakeSigningKey(options_.state_folder)}),
      control_(cloud) {
  if (!IsLoopback(options_.control_address)) {
    throw std::runtime_error("the control port takes a loopback address only, not " +
                             options_.control_address);
  }
  device_api_.AddRoutes(router_);
  account_api_.AddRoutes(router_);
  oauth_.AddRoutes(router_);
}

// Apart from the constructor: the control interface reaches the cloud through the object that owns
// this one, so requests may come only when that owns it.
void Cloud::Impl::Start() {
  server_ = std::make_unique<HttpsServer>(
      PublicServerOptions(), [this](const Request& request) { return Answer(request); });
  control_server_ = std::make_unique<HttpsServer>(
      ControlServerOptions(), [this](const Request& request) { return control_.Answer(request); });
}

ServerOptions Cloud::Impl::PublicServerOptions() const {
  return {.address = options_.address,
          .port = options_.port,
          .tls = MakeTlsSettings(authority_, options_.hosts, tls_),
          .handler_calls = HandlerCalls::kParallel};
}

ServerOptions Cloud::Impl::ControlServerOptions() const {
  return {.address = options_.control_address,
          .port = options_.control_port,
          .handler_calls = HandlerCalls::kParallel,
          .max_recorded = 0};
}

void Cloud::Impl::Stop() {
  log_.Close();
  held_.Close();
  if (server_) server_->Stop();
  if (control_server_) control_server_->Stop();
}

void Cloud::Impl::SetTls(TlsChoice choice) {
  const std::lock_guard lock(tls_mutex_);
  server_->SetTls(MakeTlsSettings(authority_, options_.hosts, choice));
  tls_ = choice;
}

TlsChoice Cloud::Impl::tls() const {
  const std::lock_guard lock(tls_mutex_);
  return tls_;
}

Response Cloud::Impl::AnswerWithFaults(const Request& request,
                                       const std::optional<FaultRule>& rule) const {
  if (!rule) return router_.Route(request);
  return FaultyAnswer(*rule, rule->status ? Response{} : router_.Route(request));
}

Response Cloud::Impl::Answer(const Request& request) {
  const std::optional<FaultRule> rule = faults_.Take(request.method, request.path);
  Response response = AnswerWithFaults(request, rule);
  LogEntry entry{.time = SystemMilliseconds(),
                 .request = request,
                 .status = response.status,
                 .answer = response.body};
  if (rule) entry.fault = rule->id;
  if (rule && rule->hold) response.fault.hold = held_.Hold(request);
  log_.Add(entry);
  return response;
}

Cloud::Cloud(CloudOptions options) : impl_(std::make_unique<Impl>(*this, std::move(options))) {
  impl_->Start();
}

Cloud::~Cloud() { impl_->Stop(); }

void Cloud::Stop() { impl_->Stop(); }

HttpsServer& Cloud::server() { return impl_->server(); }

HttpsServer& Cloud::control() { return impl_->control(); }

Store& Cloud::store() { return impl_->store(); }

FaultBook& Cloud::faults() { return impl_->faults(); }

HeldAnswers& Cloud::held() { return impl_->held(); }

RequestLog& Cloud::log() { return impl_->log(); }

Clients& Cloud::clients() { return impl_->clients(); }

TokenStore& Cloud::tokens() { return impl_->tokens(); }

const Authority& Cloud::authority() const { return impl_->authority(); }

void Cloud::SetTls(TlsChoice choice) { impl_->SetTls(choice); }

TlsChoice Cloud::tls() const { return impl_->tls(); }

std::int64_t Cloud::Now() const { return impl_->Now(); }

}  // namespace devcloud
