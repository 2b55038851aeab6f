#include "devcloud/control/control.h"

#include <algorithm>
#include <charconv>
#include <limits>

#include "devcloud/http/form.h"
#include "devcloud/http/json_text.h"
#include "devcloud/http/listener.h"
#include "devcloud/state/account_json.h"

namespace devcloud {
namespace {

constexpr std::int64_t kLongestWaitSeconds = 60;
constexpr std::int64_t kLongestLifetime = std::numeric_limits<int>::max();

class NotFound : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class Conflict : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

Response Done() { return {.status = 204}; }

Response Created(const Json::Value& value) { return JsonResponse(201, value); }

std::int64_t ToNumber(const std::string& text, const std::string& what) {
  std::int64_t number = 0;
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, number);
  if (error != std::errc() || stop != end || number < 0) {
    throw BadInput(what + " must be a whole number");
  }
  return number;
}

std::int64_t QueryNumber(const Form& query, const std::string& name) {
  const std::string* text = query.Find(name);
  return text == nullptr ? 0 : ToNumber(*text, name);
}

// How long the client wants to wait for something to list.
std::chrono::seconds WaitTime(const Form& query) {
  return std::chrono::seconds(std::min(QueryNumber(query, "wait"), kLongestWaitSeconds));
}

Form ReadQuery(const Request& request) {
  std::optional<Form> query = Form::Parse(request.query);
  if (!query) throw BadInput("the query does not parse");
  return *query;
}

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

Json::Value ToJson(const LogEntry& entry) {
  Json::Value json(Json::objectValue);
  json["id"] = Json::Int64{entry.id};
  json["time_ms"] = Json::Int64{entry.time};
  json["method"] = entry.request.method;
  json["target"] = entry.request.target;
  json["path"] = entry.request.path;
  json["body"] = entry.request.body;
  json["sni"] = entry.request.sni;
  json["tls_version"] = entry.request.tls_version;
  json["peer_port"] = entry.request.peer_port;
  json["status"] = entry.status;
  json["answer"] = entry.answer;
  json["fault"] = entry.fault ? Json::Value(Json::Int64{*entry.fault}) : Json::Value();
  Json::Value& headers = json["headers"] = Json::Value(Json::arrayValue);
  for (const Header& header : entry.request.headers) {
    Json::Value pair(Json::arrayValue);
    pair.append(header.name);
    pair.append(header.value);
    headers.append(pair);
  }
  return json;
}

Json::Value ToJson(const HeldAnswer& held) {
  Json::Value json(Json::objectValue);
  json["id"] = Json::Int64{held.id};
  json["method"] = held.method;
  json["path"] = held.path;
  return json;
}

Json::Value ToJson(TlsChoice choice) {
  Json::Value json(Json::objectValue);
  json["certificate"] = ToName(choice.certificate);
  json["highest_version"] = ToName(choice.highest);
  return json;
}

// They are sent back in a header.
void CheckAddresses(const std::vector<std::string>& uris) {
  for (const std::string& uri : uris) {
    if (uri.empty() || !IsValidHeader({"Location", uri})) throw BadInput("not an address: " + uri);
  }
}

Json::Value ListToJson(const std::vector<std::string>& texts) {
  Json::Value list(Json::arrayValue);
  for (const std::string& text : texts) list.append(text);
  return list;
}

Json::Value ToJson(const Client& client) {
  Json::Value json(Json::objectValue);
  json["client_id"] = client.client_id;
  json["access_token_seconds"] = Json::Int64{client.access_token_seconds};
  json["refresh_token_seconds"] = Json::Int64{client.refresh_token_seconds};
  json["redirect_uris"] = ListToJson(client.redirect_uris);
  json["logout_redirect_uris"] = ListToJson(client.logout_redirect_uris);
  return json;
}

Json::Value ToJson(const Family& family) {
  Json::Value json(Json::objectValue);
  json["id"] = Json::Int64{family.id};
  json["client_id"] = family.grant.client_id;
  json["user_id"] = family.grant.user_id;
  json["scope"] = family.grant.scope;
  json["created_at"] = Json::Int64{family.created_at};
  json["revoked"] = family.revoked;
  return json;
}

Json::Value ToJson(const TokenInfo& token) {
  Json::Value json(Json::objectValue);
  json["id"] = Json::Int64{token.id};
  json["family"] = Json::Int64{token.family_id};
  json["kind"] = ToName(token.kind);
  json["issued_at"] = Json::Int64{token.issued_at};
  json["expires_at"] = Json::Int64{token.expires_at};
  json["used"] = token.used;
  json["revoked"] = token.revoked;
  return json;
}

template <typename Things>
Response ListResponse(const Things& things) {
  Json::Value list(Json::arrayValue);
  for (const auto& thing : things) list.append(ToJson(thing));
  return JsonResponse(200, list);
}

Json::Value LinkToJson(const Link& link) {
  Json::Value json(Json::objectValue);
  json["id"] = link.user_id;
  json["auth_key"] = link.auth_key;
  return json;
}

}  // namespace

Control::Control(Cloud& cloud) : cloud_(cloud), console_(cloud) {
  console_.AddRoutes(router_);
  AddAccountRoutes();
  AddDeviceRoutes();
  AddServerRoutes();
  AddTokenRoutes();
}

void Control::Add(const char* verb, const char* pattern, Method method) {
  router_.Add(verb, pattern, [this, method](const Request& request, const Parameters& parameters) {
    return (this->*method)(request, parameters);
  });
}

void Control::AddAccountRoutes() {
  Add("GET", "/v1/accounts", &Control::ListAccounts);
  Add("POST", "/v1/accounts", &Control::AddAccount);
  Add("GET", "/v1/accounts/*", &Control::ShowAccount);
  Add("PATCH", "/v1/accounts/*", &Control::ChangeAccount);
  Add("DELETE", "/v1/accounts/*", &Control::RemoveAccount);
}

void Control::AddDeviceRoutes() {
  Add("GET", "/v1/devices", &Control::ListDevices);
  Add("POST", "/v1/devices", &Control::AddDevice);
  Add("GET", "/v1/devices/*", &Control::ShowDevice);
  Add("PATCH", "/v1/devices/*", &Control::ChangeDevice);
  Add("DELETE", "/v1/devices/*", &Control::RemoveDevice);
  Add("PUT", "/v1/devices/*/link", &Control::LinkDevice);
  Add("DELETE", "/v1/devices/*/link", &Control::UnlinkDevice);
}

void Control::AddServerRoutes() {
  Add("GET", "/v1/faults", &Control::ListFaults);
  Add("POST", "/v1/faults", &Control::AddFault);
  Add("DELETE", "/v1/faults", &Control::ClearFaults);
  Add("DELETE", "/v1/faults/*", &Control::RemoveFault);
  Add("GET", "/v1/held", &Control::ListHeld);
  Add("DELETE", "/v1/held", &Control::ReleaseAllHeld);
  Add("DELETE", "/v1/held/*", &Control::ReleaseHeld);
  Add("GET", "/v1/requests", &Control::ListRequests);
  Add("DELETE", "/v1/requests", &Control::ClearRequests);
  Add("GET", "/v1/tls", &Control::ShowTls);
  Add("PUT", "/v1/tls", &Control::ChangeTls);
  Add("GET", "/v1/ca", &Control::ShowAuthority);
}

void Control::AddTokenRoutes() {
  Add("GET", "/v1/clients", &Control::ListClients);
  Add("GET", "/v1/clients/*", &Control::ShowClient);
  Add("PATCH", "/v1/clients/*", &Control::ChangeClient);
  Add("GET", "/v1/families", &Control::ListFamilies);
  Add("GET", "/v1/tokens", &Control::ListTokens);
  AddTokenChange("/v1/families/*/revoke", &TokenStore::RevokeFamily);
  AddTokenChange("/v1/families/*/expire", &TokenStore::ExpireFamily);
  AddTokenChange("/v1/tokens/*/revoke", &TokenStore::RevokeToken);
  AddTokenChange("/v1/tokens/*/expire", &TokenStore::ExpireToken);
}

void Control::AddTokenChange(const char* pattern, TokenChange change) {
  router_.Add("POST", pattern, [this, change](const Request&, const Parameters& parameters) {
    if (!(cloud_.tokens().*change)(ToNumber(parameters.at(0), "id"))) throw NotFound("no such id");
    return Done();
  });
}

Response Control::Answer(const Request& request) const {
  if (!ComesFromHere(request)) return JsonError(403, "only for programs on this machine");
  try {
    return router_.Route(request);
  } catch (const BadInput& error) {
    return JsonError(400, error.what());
  } catch (const NotFound& error) {
    return JsonError(404, error.what());
  } catch (const Conflict& error) {
    return JsonError(409, error.what());
  }
}

Account Control::GetAccount(const std::string& id_or_email) const {
  auto account = cloud_.store().FindAccount(id_or_email);
  if (!account) account = cloud_.store().FindAccountByEmail(id_or_email);
  if (!account) throw NotFound("no such account");
  return *account;
}

Device Control::GetDevice(const std::string& serial) const {
  const auto device = cloud_.store().FindDevice(serial);
  if (!device) throw NotFound("no such device");
  return *device;
}

Json::Value Control::DeviceWithLink(const Device& device) const {
  Json::Value json = ToJson(device);
  const auto link = cloud_.store().FindLink(device.serial);
  json["link"] = link ? LinkToJson(*link) : Json::Value();
  return json;
}

Response Control::ListAccounts(const Request& /*request*/, const Parameters& /*parameters*/) {
  return ListResponse(cloud_.store().Accounts());
}

Response Control::AddAccount(const Request& request, const Parameters& /*parameters*/) {
  JsonFields fields(request.body);
  Account account;
  std::string password;
  fields.Text("user_id", account.user_id);
  fields.Text("password", password);
  ReadFields(fields, account);
  fields.Finish();
  if (password.empty()) throw BadInput("password must not be empty");
  if (!cloud_.store().AddAccount(account, password)) throw Conflict("this account exists already");
  return Created(ToJson(account));
}

Response Control::ShowAccount(const Request& /*request*/, const Parameters& parameters) {
  return JsonResponse(200, ToJson(GetAccount(parameters.at(0))));
}

Response Control::ChangeAccount(const Request& request, const Parameters& parameters) {
  JsonFields fields(request.body);
  Transaction transaction(cloud_.store().database());
  Account account = GetAccount(parameters.at(0));
  ReadFields(fields, account);
  std::string password;
  fields.Text("password", password);
  fields.Finish();
  if (!cloud_.store().UpdateAccount(account)) throw Conflict("this e-mail is taken");
  if (!password.empty()) cloud_.store().SetPassword(account.user_id, password);
  transaction.Commit();
  return JsonResponse(200, ToJson(account));
}

Response Control::RemoveAccount(const Request& /*request*/, const Parameters& parameters) {
  cloud_.store().RemoveAccount(GetAccount(parameters.at(0)).user_id);
  return Done();
}

Response Control::ListDevices(const Request& /*request*/, const Parameters& /*parameters*/) {
  Json::Value list(Json::arrayValue);
  for (const Device& device : cloud_.store().Devices()) list.append(DeviceWithLink(device));
  return JsonResponse(200, list);
}

Response Control::AddDevice(const Request& request, const Parameters& /*parameters*/) {
  JsonFields fields(request.body);
  Device device;
  fields.Text("serial", device.serial);
  ReadFields(fields, device);
  fields.Finish();
  if (!IsValidSerial(device.serial)) throw BadInput("serial must be a serial number");
  Transaction transaction(cloud_.store().database());
  if (cloud_.store().FindDevice(device.serial)) throw Conflict("this device exists already");
  cloud_.store().PutDevice(device);
  transaction.Commit();
  return Created(DeviceWithLink(device));
}

Response Control::ShowDevice(const Request& /*request*/, const Parameters& parameters) {
  return JsonResponse(200, DeviceWithLink(GetDevice(parameters.at(0))));
}

Response Control::ChangeDevice(const Request& request, const Parameters& parameters) {
  JsonFields fields(request.body);
  Transaction transaction(cloud_.store().database());
  Device device = GetDevice(parameters.at(0));
  ReadFields(fields, device);
  fields.Finish();
  cloud_.store().PutDevice(device);
  transaction.Commit();
  return JsonResponse(200, DeviceWithLink(device));
}

Response Control::RemoveDevice(const Request& /*request*/, const Parameters& parameters) {
  cloud_.store().RemoveDevice(GetDevice(parameters.at(0)).serial);
  return Done();
}

Response Control::LinkDevice(const Request& request, const Parameters& parameters) {
  JsonFields fields(request.body);
  std::string account;
  fields.Text("account", account);
  fields.Finish();
  Transaction transaction(cloud_.store().database());
  const Device device = GetDevice(parameters.at(0));
  const auto link = cloud_.store().LinkDevice(device.serial, GetAccount(account).user_id);
  if (!link) throw Conflict("the device has reached its maximum of accounts");
  transaction.Commit();
  return JsonResponse(200, LinkToJson(*link));
}

Response Control::UnlinkDevice(const Request& /*request*/, const Parameters& parameters) {
  if (!cloud_.store().Unlink(GetDevice(parameters.at(0)).serial)) throw NotFound("not linked");
  return Done();
}

Response Control::ListFaults(const Request& /*request*/, const Parameters& /*parameters*/) {
  return ListResponse(cloud_.faults().List());
}

Response Control::AddFault(const Request& request, const Parameters& /*parameters*/) {
  FaultRule rule = FaultRuleFromJson(request.body);
  rule.id = cloud_.faults().Add(rule);
  return Created(ToJson(rule));
}

Response Control::RemoveFault(const Request& /*request*/, const Parameters& parameters) {
  if (!cloud_.faults().Remove(ToNumber(parameters.at(0), "id"))) throw NotFound("no such fault");
  return Done();
}

Response Control::ClearFaults(const Request& /*request*/, const Parameters& /*parameters*/) {
  cloud_.faults().Clear();
  return Done();
}

Response Control::ListHeld(const Request& request, const Parameters& /*parameters*/) {
  return ListResponse(cloud_.held().WaitAndList(WaitTime(ReadQuery(request))));
}

Response Control::ReleaseHeld(const Request& /*request*/, const Parameters& parameters) {
  if (!cloud_.held().Release(ToNumber(parameters.at(0), "id"))) throw NotFound("not held");
  return Done();
}

Response Control::ReleaseAllHeld(const Request& /*request*/, const Parameters& /*parameters*/) {
  cloud_.held().ReleaseAll();
  return Done();
}

Response Control::ListRequests(const Request& request, const Parameters& /*parameters*/) {
  const Form query = ReadQuery(request);
  return ListResponse(
      cloud_.log().WaitAndRead(QueryNumber(query, "after"), query.Get("path"), WaitTime(query)));
}

Response Control::ClearRequests(const Request& /*request*/, const Parameters& /*parameters*/) {
  cloud_.log().Clear();
  return Done();
}

Response Control::ShowTls(const Request& /*request*/, const Parameters& /*parameters*/) {
  return JsonResponse(200, ToJson(cloud_.tls()));
}

Response Control::ChangeTls(const Request& request, const Parameters& /*parameters*/) {
  JsonFields fields(request.body);
  const TlsChoice usual;
  std::string certificate = ToName(usual.certificate);
  std::string highest = ToName(usual.highest);
  fields.Text("certificate", certificate);
  fields.Text("highest_version", highest);
  fields.Finish();
  cloud_.SetTls({CertificateKindFromName(certificate), TlsVersionFromName(highest)});
  return JsonResponse(200, ToJson(cloud_.tls()));
}

Response Control::ShowAuthority(const Request& /*request*/, const Parameters& /*parameters*/) {
  return {.headers = {{"Content-Type", "application/x-pem-file"}},
          .body = cloud_.authority().certificate_pem()};
}

Client Control::GetClient(const std::string& client_id) const {
  const auto client = cloud_.clients().Find(client_id);
  if (!client) throw NotFound("no such client");
  return *client;
}

Response Control::ListClients(const Request& /*request*/, const Parameters& /*parameters*/) {
  return ListResponse(cloud_.clients().List());
}

Response Control::ShowClient(const Request& /*request*/, const Parameters& parameters) {
  return JsonResponse(200, ToJson(GetClient(parameters.at(0))));
}

Response Control::ChangeClient(const Request& request, const Parameters& parameters) {
  JsonFields fields(request.body);
  Transaction transaction(cloud_.store().database());
  Client client = GetClient(parameters.at(0));
  fields.Number("access_token_seconds", 0, kLongestLifetime, client.access_token_seconds);
  fields.Number("refresh_token_seconds", 0, kLongestLifetime, client.refresh_token_seconds);
  fields.Texts("redirect_uris", client.redirect_uris);
  fields.Texts("logout_redirect_uris", client.logout_redirect_uris);
  fields.Finish();
  CheckAddresses(client.redirect_uris);
  CheckAddresses(client.logout_redirect_uris);
  cloud_.clients().Save(client);
  transaction.Commit();
  return JsonResponse(200, ToJson(client));
}

Response Control::ListFamilies(const Request& /*request*/, const Parameters& /*parameters*/) {
  return ListResponse(cloud_.tokens().Families());
}

Response Control::ListTokens(const Request& /*request*/, const Parameters& /*parameters*/) {
  return ListResponse(cloud_.tokens().Tokens());
}

}  // namespace devcloud
