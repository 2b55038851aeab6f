#include "devcloud/control/control.h"

#include <utility>

#include "devcloud/control/endpoint.h"
#include "devcloud/http/json_fields.h"
#include "devcloud/http/listener.h"

namespace devcloud {
namespace {

// Without port and brackets.
std::string NameIn(const std::string& host) {
  const bool bracketed = !host.empty() && host.front() == '[';
  return bracketed ? host.substr(1, host.find(']') - 1) : host.substr(0, host.find(':'));
}

// What a browser says of requests that a page of another site or another port has it make. A person
// may follow a link from there.
bool IsSentAcross(const Request& request) {
  const std::string site = request.HeaderOr("Sec-Fetch-Site");
  const bool across = !site.empty() && site != "same-origin" && site != "none";
  return across && !(request.method == "GET" && request.HeaderOr("Sec-Fetch-Mode") == "navigate");
}

// Web pages of strangers, opened in a browser on this machine, are kept out: neither a page that
// had its own name point here, nor one that sends a form across, gets through.
bool ComesFromHere(const Request& request) {
  const std::string host = request.HeaderOr("Host");
  const std::string name = NameIn(host);
  const bool local = name == "localhost" || IsLoopback(name);
  const std::string* origin = request.FindHeader("Origin");
  return local && (origin == nullptr || *origin == "http://" + host) && !IsSentAcross(request);
}

}  // namespace

Control::Control(CloudState& state, TlsSwitch& tls, std::vector<std::string> paths)
    : console_(state, std::move(paths)) {
  console_.AddRoutes(router_);
  for (const auto endpoints : {control::kAccountEndpoints, control::kDeviceEndpoints,
                               control::kServerEndpoints, control::kTokenEndpoints}) {
    for (const control::Endpoint& endpoint : endpoints) {
      router_.Add(endpoint.method, endpoint.pattern,
                  [&state, &tls, endpoint](const Request& request, const auto& parameters) {
                    return endpoint.answer({state, tls, request, parameters});
                  });
    }
  }
}

Response Control::Answer(const Request& request) const {
  if (!ComesFromHere(request)) return JsonError(403, "only for programs on this machine");
  try {
    return router_.Route(request);
  } catch (const BadInput& error) {
    return JsonError(400, error.what());
  } catch (const control::NotFound& error) {
    return JsonError(404, error.what());
  } catch (const control::Conflict& error) {
    return JsonError(409, error.what());
  }
}

}  // namespace devcloud
