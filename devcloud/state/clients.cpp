#include "devcloud/state/clients.h"

#include <json/value.h>

#include <algorithm>
#include <string_view>
#include <utility>

#include "devcloud/http/json_text.h"

namespace devcloud {
namespace {

constexpr char kSchema[] = R"sql(
CREATE TABLE IF NOT EXISTS clients(
  client_id TEXT PRIMARY KEY,
  access_token_seconds INTEGER NOT NULL,
  refresh_token_seconds INTEGER NOT NULL,
  redirect_uris TEXT NOT NULL,
  logout_redirect_uris TEXT NOT NULL
) STRICT;
)sql";

constexpr char kSelect[] =
    "SELECT client_id, access_token_seconds, refresh_token_seconds, redirect_uris,"
    " logout_redirect_uris FROM clients ";

std::string ListToText(const std::vector<std::string>& texts) {
  Json::Value list(Json::arrayValue);
  for (const std::string& text : texts) list.append(text);
  return ToCompactText(list);
}

std::vector<std::string> ListFromText(const std::string& json) {
  std::vector<std::string> texts;
  const Json::Value list = ParseJson(json).value_or(Json::Value());
  for (const Json::Value& text : list) texts.push_back(text.asString());
  return texts;
}

Client ReadClient(Statement& row) {
  Client client;
  client.client_id = row.Text();
  client.access_token_seconds = row.Number();
  client.refresh_token_seconds = row.Number();
  client.redirect_uris = ListFromText(row.Text());
  client.logout_redirect_uris = ListFromText(row.Text());
  return client;
}

std::string_view WithoutPort(std::string_view text) {
  if (text.empty() || text.front() != ':') return text;
  text.remove_prefix(1);
  text.remove_prefix(std::min(text.find_first_not_of("0123456789"), text.size()));
  return text;
}

bool Contains(const std::vector<std::string>& texts, const std::string& text) {
  return std::find(texts.begin(), texts.end(), text) != texts.end();
}

}  // namespace

Clients::Clients(Database& database, std::vector<std::string> hosts)
    : database_(database), hosts_(std::move(hosts)) {
  database_.Execute(kSchema);
  for (const char* client_id : {kLoginClient, kRegisterClient}) {
    if (!Find(client_id)) Save({.client_id = client_id});
  }
}

std::optional<Client> Clients::Find(const std::string& client_id) {
  Statement select(database_, std::string(kSelect) + "WHERE client_id = ?");
  select.Bind(client_id);
  if (!select.Next()) return std::nullopt;
  return ReadClient(select);
}

std::vector<Client> Clients::List() {
  std::vector<Client> clients;
  Statement select(database_, std::string(kSelect) + "ORDER BY client_id");
  while (select.Next()) clients.push_back(ReadClient(select));
  return clients;
}

void Clients::Save(const Client& client) {
  Statement put(database_,
                "INSERT OR REPLACE INTO clients(client_id, access_token_seconds,"
                " refresh_token_seconds, redirect_uris, logout_redirect_uris) VALUES(?,?,?,?,?)");
  put.Bind(client.client_id).Bind(client.access_token_seconds).Bind(client.refresh_token_seconds);
  put.Bind(ListToText(client.redirect_uris)).Bind(ListToText(client.logout_redirect_uris)).Run();
}

bool Clients::IsOwn(const std::string& uri, const std::string& path) const {
  return std::any_of(hosts_.begin(), hosts_.end(), [&](const std::string& host) {
    const std::string base = "https://" + host;
    return uri.substr(0, base.size()) == base &&
           WithoutPort(std::string_view(uri).substr(base.size())) == path;
  });
}

bool Clients::MayRedirect(const Client& client, const std::string& uri) const {
  return IsOwn(uri, kLoginCallbackPath) || Contains(client.redirect_uris, uri);
}

bool Clients::MayRedirectAfterLogout(const Client& client, const std::string& uri) const {
  return IsOwn(uri, kLogoutCallbackPath) || Contains(client.logout_redirect_uris, uri);
}

}  // namespace devcloud
