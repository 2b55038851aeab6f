// What the contract suite needs of a platform beside its calls: facts to read back.
#pragma once

#include <string>

namespace platform_facts {

inline constexpr char kSerialNumber[] = "NL00000001A";
inline constexpr char kMacAddress[] = "02:00:5e:10:00:01";
inline constexpr char kUserAgentTail[] = "HOS/7.2.1 (NL224)";
inline constexpr char kZone[] = "Europe/Zurich";

// A device with the facts above, nothing stored, nothing scheduled, no plug-ins.
void GiveFacts();

void ForgetSerialNumberAndMacAddress();
void ForgetZone();
void SetStatus(int item, int state);
void StoreApiKey(const std::string& key);
void MakePluginsFail();
void AddOldScheduleEntry(const std::string& command);
int OldScheduleEntries(const std::string& command);
bool HasJobList(const std::string& name);

}  // namespace platform_facts
