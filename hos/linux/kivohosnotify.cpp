// Shows a desktop notice to administrators: on plain Linux, a line for the platform's viewers and
// the system log.
#include <json/value.h>
#include <syslog.h>

#include <cstdio>
#include <exception>

#include "base/json_text.h"
#include "hos/linux/json_line.h"

namespace {

constexpr char kNotificationFile[] = "/usr/kivo/var/notifications.jsonl";

int Notify(int count, char** words) {
  Json::Value record;
  record["args"] = Json::arrayValue;
  for (int index = 1; index < count; ++index) record["args"].append(words[index]);
  syslog(LOG_NOTICE, "notice %s", base::JsonText(record["args"]).c_str());
  if (!hos_linux::AppendJsonLine(kNotificationFile, record)) {
    std::fprintf(stderr, "kivohosnotify: cannot write %s\n", kNotificationFile);
    return 1;
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return Notify(argc, argv);
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "kivohosnotify: %s\n", failure.what());
    return 1;
  }
}
