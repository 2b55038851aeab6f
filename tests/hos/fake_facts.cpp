#include <algorithm>

#include "tests/fake_hos/fake_hos.h"
#include "tests/hos/platform_facts.h"

namespace platform_facts {

void GiveFacts() {
  fake_hos::platform().Reset();
  fake_hos::Device& device = fake_hos::platform().device;
  device.serial_number = kSerialNumber;
  device.mac_address = kMacAddress;
  device.user_agent_tail = kUserAgentTail;
  device.zone = kZone;
  device.zone_table = {{kZone, {{"nameInTZDB", kZone}, {"utcOffset", "3600"}}}};
}

void ForgetSerialNumberAndMacAddress() {
  fake_hos::platform().device.serial_number.reset();
  fake_hos::platform().device.mac_address.reset();
}

void ForgetZone() { fake_hos::platform().device.zone.reset(); }

void SetStatus(int item, int state) { fake_hos::platform().device.scemd_states[item] = state; }

void StoreApiKey(const std::string& key) { fake_hos::platform().cloud.stored_api_key = key; }

void MakePluginsFail() { fake_hos::platform().FailAlways("KLIBPluginAction"); }

void AddOldScheduleEntry(const std::string& command) {
  fake_hos::platform().schedule_entries.push_back(command);
}

int OldScheduleEntries(const std::string& command) {
  const auto& entries = fake_hos::platform().schedule_entries;
  return static_cast<int>(std::count(entries.begin(), entries.end(), command));
}

bool HasJobList(const std::string& name) { return fake_hos::platform().crond_lists.contains(name); }

}  // namespace platform_facts
