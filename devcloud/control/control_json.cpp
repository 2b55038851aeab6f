#include "devcloud/control/control_json.h"

namespace devcloud {
namespace {

Json::Value ListToJson(const std::vector<std::string>& texts) {
  Json::Value list(Json::arrayValue);
  for (const std::string& text : texts) list.append(text);
  return list;
}

}  // namespace

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

}  // namespace devcloud
