#include "devcloud/state/faults.h"

#include <algorithm>
#include <array>
#include <limits>
#include <utility>

#include "devcloud/http/json_fields.h"
#include "devcloud/http/json_text.h"

namespace devcloud {
namespace {

constexpr std::int64_t kLongestMilliseconds = std::int64_t{3600} * 1000;
constexpr std::int64_t kMostRequests = std::numeric_limits<int>::max();

constexpr std::array<std::pair<Delivery, const char*>, 7> kDeliveries{{
    {Delivery::kWhole, "whole"},
    {Delivery::kDrop, "drop"},
    {Delivery::kTruncate, "truncate"},
    {Delivery::kEndless, "endless"},
    {Delivery::kSlow, "slow"},
    {Delivery::kRaw, "raw"},
    {Delivery::kRawEndless, "raw_endless"},
}};

const char* DeliveryName(Delivery delivery) {
  const auto* found =
      std::find_if(kDeliveries.begin(), kDeliveries.end(),
                   [delivery](const auto& entry) { return entry.first == delivery; });
  return found == kDeliveries.end() ? "whole" : found->second;
}

Delivery DeliveryFromName(const std::string& name) {
  const auto* found = std::find_if(kDeliveries.begin(), kDeliveries.end(),
                                   [&name](const auto& entry) { return entry.second == name; });
  if (found == kDeliveries.end()) {
    throw BadInput("delivery must be whole, drop, truncate, endless, slow, raw or raw_endless");
  }
  return found->first;
}

Json::Value HeadersToJson(const std::vector<Header>& headers) {
  Json::Value list(Json::arrayValue);
  for (const Header& header : headers) {
    Json::Value pair(Json::arrayValue);
    pair.append(header.name);
    pair.append(header.value);
    list.append(pair);
  }
  return list;
}

Header HeaderFromJson(const Json::Value& pair) {
  const bool two_texts =
      pair.isArray() && pair.size() == 2 && pair[0].isString() && pair[1].isString();
  if (!two_texts) throw BadInput("headers must be a list of [name, value]");
  Header header{pair[0].asString(), pair[1].asString()};
  if (!IsValidHeader(header)) throw BadInput("not a header: " + header.name);
  return header;
}

std::vector<Header> HeadersFromJson(const Json::Value& list) {
  std::vector<Header> headers;
  if (list.isNull()) return headers;
  if (!list.isArray()) throw BadInput("headers must be a list of [name, value]");
  for (const Json::Value& pair : list) headers.push_back(HeaderFromJson(pair));
  return headers;
}

// A text goes out as it is; anything else as its JSON.
std::string BodyFromJson(const Json::Value& body) {
  if (body.isNull()) return {};
  return body.isString() ? body.asString() : ToCompactText(body);
}

std::chrono::milliseconds ReadMilliseconds(JsonFields& fields, const std::string& name,
                                           std::chrono::milliseconds fallback) {
  std::int64_t number = fallback.count();
  fields.Number(name, 0, kLongestMilliseconds, number);
  return std::chrono::milliseconds(number);
}

Fault ReadFault(JsonFields& fields) {
  Fault fault;
  fault.delay = ReadMilliseconds(fields, "delay_ms", fault.delay);
  fault.slow_interval = ReadMilliseconds(fields, "slow_ms", fault.slow_interval);
  std::string delivery = DeliveryName(fault.delivery);
  fields.Text("delivery", delivery);
  fault.delivery = DeliveryFromName(delivery);
  auto bytes = static_cast<std::int64_t>(fault.slow_bytes);
  fields.Number("slow_bytes", 1, std::numeric_limits<int>::max(), bytes);
  fault.slow_bytes = static_cast<std::size_t>(bytes);
  return fault;
}

std::optional<std::int64_t> ReadOptionalNumber(JsonFields& fields, const std::string& name,
                                               std::int64_t lowest, std::int64_t highest) {
  if (fields.Raw(name).isNull()) return std::nullopt;
  std::int64_t number = lowest;
  fields.Number(name, lowest, highest, number);
  return number;
}

FaultRule ReadRule(Statement& row) {
  const std::int64_t id = row.Number();
  FaultRule rule = FaultRuleFromJson(row.Text());
  rule.id = id;
  return rule;
}

bool Fits(const FaultRule& rule, const std::string& method, const std::string& path) {
  return (rule.method.empty() || rule.method == method) && (rule.path == "*" || rule.path == path);
}

// What is kept: the id stands in its own column.
std::string ToStoredText(const FaultRule& rule) {
  Json::Value json = ToJson(rule);
  json.removeMember("id");
  return ToCompactText(json);
}

}  // namespace

Json::Value ToJson(const FaultRule& rule) {
  Json::Value json(Json::objectValue);
  json["id"] = Json::Int64{rule.id};
  json["method"] = rule.method;
  json["path"] = rule.path;
  json["skip"] = Json::Int64{rule.skip};
  json["count"] = rule.count ? Json::Value(Json::Int64{*rule.count}) : Json::Value();
  json["status"] = rule.status ? Json::Value(*rule.status) : Json::Value();
  json["headers"] = HeadersToJson(rule.headers);
  json["body"] = rule.body;
  json["hold"] = rule.hold;
  json["delay_ms"] = Json::Int64{rule.fault.delay.count()};
  json["delivery"] = DeliveryName(rule.fault.delivery);
  json["slow_bytes"] = Json::UInt64{rule.fault.slow_bytes};
  json["slow_ms"] = Json::Int64{rule.fault.slow_interval.count()};
  return json;
}

FaultRule FaultRuleFromJson(const std::string& text) {
  JsonFields fields(text);
  FaultRule rule;
  fields.Text("method", rule.method);
  fields.Text("path", rule.path);
  fields.Number("skip", 0, kMostRequests, rule.skip);
  rule.count = ReadOptionalNumber(fields, "count", 1, kMostRequests);
  if (const auto status = ReadOptionalNumber(fields, "status", 200, 999)) {
    rule.status = static_cast<int>(*status);
  }
  rule.headers = HeadersFromJson(fields.Raw("headers"));
  rule.body = BodyFromJson(fields.Raw("body"));
  fields.Flag("hold", rule.hold);
  rule.fault = ReadFault(fields);
  fields.Finish();
  if (rule.path != "*" && rule.path.substr(0, 1) != "/") {
    throw BadInput("path must begin with / or be *");
  }
  return rule;
}

FaultBook::FaultBook(Database& database) : database_(database) {
  database_.Execute(
      "CREATE TABLE IF NOT EXISTS faults(id INTEGER PRIMARY KEY AUTOINCREMENT,"
      " rule TEXT NOT NULL) STRICT");
}

std::int64_t FaultBook::Add(const FaultRule& rule) {
  Transaction transaction(database_);
  Statement(database_, "INSERT INTO faults(rule) VALUES(?)").Bind(ToStoredText(rule)).Run();
  const std::int64_t id = database_.LastInsertId();
  transaction.Commit();
  return id;
}

bool FaultBook::Remove(std::int64_t id) {
  return Statement(database_, "DELETE FROM faults WHERE id = ?").Bind(id).Run() == 1;
}

void FaultBook::Clear() { database_.Execute("DELETE FROM faults"); }

std::vector<FaultRule> FaultBook::List() {
  std::vector<FaultRule> rules;
  Statement select(database_, "SELECT id, rule FROM faults ORDER BY id");
  while (select.Next()) rules.push_back(ReadRule(select));
  return rules;
}

void FaultBook::Save(const FaultRule& rule) {
  Statement update(database_, "UPDATE faults SET rule = ? WHERE id = ?");
  update.Bind(ToStoredText(rule)).Bind(rule.id).Run();
}

std::optional<FaultRule> FaultBook::Take(const std::string& method, const std::string& path) {
  Transaction transaction(database_);
  std::optional<FaultRule> taken;
  for (FaultRule& rule : List()) {
    if (taken || !Fits(rule, method, path)) continue;
    if (rule.skip > 0) {
      --rule.skip;
      Save(rule);
      continue;
    }
    taken = rule;
    if (!rule.count) continue;
    if (--*rule.count == 0) {
      Remove(rule.id);
    } else {
      Save(rule);
    }
  }
  transaction.Commit();
  return taken;
}

}  // namespace devcloud
