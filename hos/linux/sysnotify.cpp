#include "kivo/sysnotify.h"

#include <json/value.h>
#include <syslog.h>

#include "base/json_text.h"
#include "hos/linux/error.h"
#include "hos/linux/json_line.h"
#include "hos/linux/szhash.h"

namespace hos_linux {
namespace {

constexpr char kNotificationFile[] = "/usr/kivo/var/notifications.jsonl";

int Send(const char* tag, const KLIBCSZHASH& params) {
  Json::Value record;
  record["tag"] = tag;
  record["params"] = Json::objectValue;
  for (const auto& [name, value] : params.entries) record["params"][name] = value;
  syslog(LOG_NOTICE, "notification %s", base::JsonText(record).c_str());
  return AppendJsonLine(kNotificationFile, record) ? 0 : -1;
}

}  // namespace
}  // namespace hos_linux

extern "C" {

int KIVOSysNotifySendNotifiction(const char* tag, const KLIBCSZHASH* params) {
  if (tag == nullptr || params == nullptr) return hos_linux::MinusOne(hos_linux::kBadArgument);
  return hos_linux::PlatformCall(-1, [=] { return hos_linux::Send(tag, *params); });
}
}
