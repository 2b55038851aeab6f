#include "devcloud/control/control_json.h"
#include "devcloud/control/endpoint.h"
#include "devcloud/http/json_fields.h"

namespace devcloud::control {
namespace {

Response ListFaults(const Call& call) { return Listed(call.state.faults.List()); }

Response AddFault(const Call& call) {
  FaultRule rule = FaultRuleFromJson(call.request.body);
  rule.id = call.state.faults.Add(rule);
  return Created(ToJson(rule));
}

Response ClearFaults(const Call& call) {
  call.state.faults.Clear();
  return Done();
}

Response RemoveFault(const Call& call) {
  if (!call.state.faults.Remove(ReadId(call))) throw NotFound("no such fault");
  return Done();
}

Response ListHeld(const Call& call) {
  return Listed(call.state.held.WaitAndList(WaitTime(ReadQuery(call))));
}

Response ReleaseAllHeld(const Call& call) {
  call.state.held.ReleaseAll();
  return Done();
}

Response ReleaseHeld(const Call& call) {
  if (!call.state.held.Release(ReadId(call))) throw NotFound("not held");
  return Done();
}

Response ListRequests(const Call& call) {
  const Form query = ReadQuery(call);
  return Listed(
      call.state.log.WaitAndRead(QueryNumber(query, "after"), query.Get("path"), WaitTime(query)));
}

Response ClearRequests(const Call& call) {
  call.state.log.Clear();
  return Done();
}

Response ShowTls(const Call& call) { return Shown(ToJson(call.tls.choice())); }

Response ChangeTls(const Call& call) {
  JsonFields fields(call.request.body);
  const TlsChoice usual;
  std::string certificate = ToName(usual.certificate);
  std::string highest = ToName(usual.highest);
  fields.Text("certificate", certificate);
  fields.Text("highest_version", highest);
  fields.Finish();
  call.tls.Choose({CertificateKindFromName(certificate), TlsVersionFromName(highest)});
  return Shown(ToJson(call.tls.choice()));
}

Response ShowAuthority(const Call& call) {
  return {.headers = {{"Content-Type", "application/x-pem-file"}},
          .body = call.tls.authority().certificate_pem()};
}

constexpr auto kEndpoints = std::to_array<Endpoint>({
    {"GET", "/v1/faults", ListFaults},
    {"POST", "/v1/faults", AddFault},
    {"DELETE", "/v1/faults", ClearFaults},
    {"DELETE", "/v1/faults/*", RemoveFault},
    {"GET", "/v1/held", ListHeld},
    {"DELETE", "/v1/held", ReleaseAllHeld},
    {"DELETE", "/v1/held/*", ReleaseHeld},
    {"GET", "/v1/requests", ListRequests},
    {"DELETE", "/v1/requests", ClearRequests},
    {"GET", "/v1/tls", ShowTls},
    {"PUT", "/v1/tls", ChangeTls},
    {"GET", "/v1/ca", ShowAuthority},
});

}  // namespace

const std::span<const Endpoint> kServerEndpoints{kEndpoints};

}  // namespace devcloud::control
