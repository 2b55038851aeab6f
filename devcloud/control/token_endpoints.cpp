#include <limits>

#include "devcloud/control/control_json.h"
#include "devcloud/control/endpoint.h"
#include "devcloud/http/json_fields.h"

namespace devcloud::control {
namespace {

constexpr std::int64_t kLongestLifetime = std::numeric_limits<int>::max();

// They are sent back in a header.
void CheckAddresses(const std::vector<std::string>& uris) {
  for (const std::string& uri : uris) {
    if (uri.empty() || !IsValidHeader({"Location", uri})) throw BadInput("not an address: " + uri);
  }
}

Client GetClient(const Call& call, const std::string& client_id) {
  const auto client = call.state.clients.Find(client_id);
  if (!client) throw NotFound("no such client");
  return *client;
}

Response ListClients(const Call& call) { return Listed(call.state.clients.List()); }

Response ShowClient(const Call& call) {
  return Shown(ToJson(GetClient(call, call.parameters.at(0))));
}

Response ChangeClient(const Call& call) {
  JsonFields fields(call.request.body);
  Transaction transaction(call.state.database);
  Client client = GetClient(call, call.parameters.at(0));
  fields.Number("access_token_seconds", 0, kLongestLifetime, client.access_token_seconds);
  fields.Number("refresh_token_seconds", 0, kLongestLifetime, client.refresh_token_seconds);
  fields.Texts("redirect_uris", client.redirect_uris);
  fields.Texts("logout_redirect_uris", client.logout_redirect_uris);
  fields.Finish();
  CheckAddresses(client.redirect_uris);
  CheckAddresses(client.logout_redirect_uris);
  call.state.clients.Save(client);
  transaction.Commit();
  return Shown(ToJson(client));
}

Response ListFamilies(const Call& call) { return Listed(call.state.tokens.Families()); }

Response ListTokens(const Call& call) { return Listed(call.state.tokens.Tokens()); }

// Revokes or expires the token or family of that id.
template <bool (TokenStore::*change)(std::int64_t id)>
Response ChangeToken(const Call& call) {
  if (!(call.state.tokens.*change)(ReadId(call))) throw NotFound("no such id");
  return Done();
}

constexpr auto kEndpoints = std::to_array<Endpoint>({
    {"GET", "/v1/clients", ListClients},
    {"GET", "/v1/clients/*", ShowClient},
    {"PATCH", "/v1/clients/*", ChangeClient},
    {"GET", "/v1/families", ListFamilies},
    {"GET", "/v1/tokens", ListTokens},
    {"POST", "/v1/families/*/revoke", ChangeToken<&TokenStore::RevokeFamily>},
    {"POST", "/v1/families/*/expire", ChangeToken<&TokenStore::ExpireFamily>},
    {"POST", "/v1/tokens/*/revoke", ChangeToken<&TokenStore::RevokeToken>},
    {"POST", "/v1/tokens/*/expire", ChangeToken<&TokenStore::ExpireToken>},
});

}  // namespace

const std::span<const Endpoint> kTokenEndpoints{kEndpoints};

}  // namespace devcloud::control
