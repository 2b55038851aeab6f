#include "devcloud/cloud.h"

#include <algorithm>
#include <chrono>
#include <ctime>
#include <stdexcept>
#include <utility>

#include "devcloud/api/account_api.h"
#include "devcloud/api/device_api.h"
#include "devcloud/api/oauth.h"
#include "devcloud/api/sign_in.h"
#include "devcloud/http/listener.h"
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

CloudOptions Checked(CloudOptions options) {
  if (!IsLoopback(options.control_address)) {
    throw std::runtime_error("the control port takes a loopback address only, not " +
                             options.control_address);
  }
  return options;
}

Router MakeRouter(CloudState& state, const CloudOptions& options) {
  Router router;
  AddDeviceApi(router, state);
  AddAccountApi(router, state);
  AddSignIn(router, state);
  AddOauth(router, state,
           {.issuer = IssuerAmong(options.hosts),
            .signing_key_pem = LoadOrMakeSigningKey(options.state_folder)});
  return router;
}

ServerOptions PublicServerOptions(const CloudOptions& options, const Authority& authority) {
  return {.address = options.address,
          .port = options.port,
          .tls = MakeTlsSettings(authority, options.hosts, {}),
          .handler_calls = HandlerCalls::kParallel};
}

ServerOptions ControlServerOptions(const CloudOptions& options) {
  return {.address = options.control_address,
          .port = options.control_port,
          .handler_calls = HandlerCalls::kParallel,
          .max_recorded = 0};
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

Cloud::Cloud(CloudOptions options)
    : options_(Checked(std::move(options))),
      authority_(LoadOrMakeAuthority(options_.state_folder)),
      state_(options_.state_folder, options_.hosts, options_.clock),
      router_(MakeRouter(state_, options_)),
      server_(PublicServerOptions(options_, authority_),
              [this](const Request& request) { return Answer(request); }),
      tls_(authority_, options_.hosts, server_),
      control_(state_, tls_, router_.Patterns()),
      control_server_(ControlServerOptions(options_),
                      [this](const Request& request) { return control_.Answer(request); }) {}

Cloud::~Cloud() { Stop(); }

void Cloud::Stop() {
  state_.log.Close();
  state_.held.Close();
  server_.Stop();
  control_server_.Stop();
}

Response Cloud::AnswerWithFaults(const Request& request,
                                 const std::optional<FaultRule>& rule) const {
  if (!rule) return router_.Route(request);
  return FaultyAnswer(*rule, rule->status ? Response{} : router_.Route(request));
}

Response Cloud::Answer(const Request& request) {
  const std::optional<FaultRule> rule = state_.faults.Take(request.method, request.path);
  Response response = AnswerWithFaults(request, rule);
  LogEntry entry{.time = SystemMilliseconds(),
                 .request = request,
                 .status = response.status,
                 .answer = response.body};
  if (rule) entry.fault = rule->id;
  if (rule && rule->hold) response.fault.hold = state_.held.Hold(request);
  state_.log.Add(entry);
  return response;
}

}  // namespace devcloud
