#include "devcloud/control/endpoint.h"
#include "devcloud/http/json_fields.h"
#include "devcloud/state/account_json.h"

namespace devcloud::control {
namespace {

Json::Value LinkToJson(const Link& link) {
  Json::Value json(Json::objectValue);
  json["id"] = link.user_id;
  json["auth_key"] = link.auth_key;
  return json;
}

Device GetDevice(const Call& call, const std::string& serial) {
  const auto device = call.state.store.FindDevice(serial);
  if (!device) throw NotFound("no such device");
  return *device;
}

Json::Value DeviceWithLink(const Call& call, const Device& device) {
  Json::Value json = ToJson(device);
  const auto link = call.state.store.FindLink(device.serial);
  json["link"] = link ? LinkToJson(*link) : Json::Value();
  return json;
}

Response ListDevices(const Call& call) {
  Json::Value list(Json::arrayValue);
  for (const Device& device : call.state.store.Devices()) list.append(DeviceWithLink(call, device));
  return Shown(list);
}

Response AddDevice(const Call& call) {
  JsonFields fields(call.request.body);
  Device device;
  fields.Text("serial", device.serial);
  ReadFields(fields, device);
  fields.Finish();
  if (!IsValidSerial(device.serial)) throw BadInput("serial must be a serial number");
  Transaction transaction(call.state.database);
  if (call.state.store.FindDevice(device.serial)) throw Conflict("this device exists already");
  call.state.store.PutDevice(device);
  transaction.Commit();
  return Created(DeviceWithLink(call, device));
}

Response ShowDevice(const Call& call) {
  return Shown(DeviceWithLink(call, GetDevice(call, call.parameters.at(0))));
}

Response ChangeDevice(const Call& call) {
  JsonFields fields(call.request.body);
  Transaction transaction(call.state.database);
  Device device = GetDevice(call, call.parameters.at(0));
  ReadFields(fields, device);
  fields.Finish();
  call.state.store.PutDevice(device);
  transaction.Commit();
  return Shown(DeviceWithLink(call, device));
}

Response RemoveDevice(const Call& call) {
  call.state.store.RemoveDevice(GetDevice(call, call.parameters.at(0)).serial);
  return Done();
}

Response LinkDevice(const Call& call) {
  JsonFields fields(call.request.body);
  std::string account;
  fields.Text("account", account);
  fields.Finish();
  Transaction transaction(call.state.database);
  const Device device = GetDevice(call, call.parameters.at(0));
  const auto link = call.state.store.LinkDevice(device.serial, GetAccount(call, account).user_id);
  if (!link) throw Conflict("the device has reached its maximum of accounts");
  transaction.Commit();
  return Shown(LinkToJson(*link));
}

Response UnlinkDevice(const Call& call) {
  if (!call.state.store.Unlink(GetDevice(call, call.parameters.at(0)).serial)) {
    throw NotFound("not linked");
  }
  return Done();
}

constexpr auto kEndpoints = std::to_array<Endpoint>({
    {"GET", "/v1/devices", ListDevices},
    {"POST", "/v1/devices", AddDevice},
    {"GET", "/v1/devices/*", ShowDevice},
    {"PATCH", "/v1/devices/*", ChangeDevice},
    {"DELETE", "/v1/devices/*", RemoveDevice},
    {"PUT", "/v1/devices/*/link", LinkDevice},
    {"DELETE", "/v1/devices/*/link", UnlinkDevice},
});

}  // namespace

const std::span<const Endpoint> kDeviceEndpoints{kEndpoints};

}  // namespace devcloud::control
