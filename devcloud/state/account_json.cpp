#include "devcloud/state/account_json.h"

#include <limits>

namespace devcloud {
namespace {

Json::Value OptionalToJson(const std::optional<std::string>& text) {
  return text ? Json::Value(*text) : Json::Value();
}

}  // namespace

Json::Value ProfileToJson(const Account& account) {
  Json::Value json(Json::objectValue);
  for (std::size_t i = 0; i < kProfileTexts; ++i) {
    json[kAccountTexts.at(i).name] = account.*kAccountTexts.at(i).member;
  }
  for (const AccountFlag& flag : kAccountFlags) json[flag.name] = account.*flag.member;
  Json::Value& versions = json["critical_version_list"] = Json::Value(Json::objectValue);
  for (const auto& [name, critical] : account.critical_version_list) versions[name] = critical;
  return json;
}

Json::Value ToJson(const Account& account) {
  Json::Value json = ProfileToJson(account);
  json["user_id"] = account.user_id;
  json["state"] = account.state;
  json["report_cron_timestring"] = OptionalToJson(account.report_cron_timestring);
  return json;
}

Json::Value ToJson(const Device& device) {
  Json::Value json(Json::objectValue);
  json["serial"] = device.serial;
  json["mac"] = device.mac;
  json["api_key"] = OptionalToJson(device.api_key);
  json["api_key_expired"] = device.api_key_expired;
  json["max_accounts"] = Json::Int64{device.max_accounts};
  json["report_cron_timestring"] = OptionalToJson(device.report_cron_timestring);
  json["reported_at"] = Json::Int64{device.reported_at};
  json["reported_timezone"] = device.reported_timezone;
  json["schedule_given"] = OptionalToJson(device.schedule_given);
  return json;
}

void ReadFields(JsonFields& fields, Account& account) {
  for (const AccountText& text : kAccountTexts) fields.Text(text.name, account.*text.member);
  for (const AccountFlag& flag : kAccountFlags) fields.Flag(flag.name, account.*flag.member);
  fields.Flags("critical_version_list", account.critical_version_list);
  fields.OptionalText("report_cron_timestring", account.report_cron_timestring);
  if (account.email.empty()) throw BadInput("email must not be empty");
  if (account.state.empty()) throw BadInput("state must not be empty");
}

void ReadFields(JsonFields& fields, Device& device) {
  fields.Text("mac", device.mac);
  fields.OptionalText("api_key", device.api_key);
  fields.Flag("api_key_expired", device.api_key_expired);
  fields.Number("max_accounts", 0, std::numeric_limits<int>::max(), device.max_accounts);
  fields.OptionalText("report_cron_timestring", device.report_cron_timestring);
  if (!IsValidMac(device.mac)) throw BadInput("mac must be a MAC address");
}

}  // namespace devcloud
