#include <string_view>

#include "lab/files.h"
#include "tests/hos/platform_facts.h"

namespace platform_facts {
namespace {

constexpr char kFacts[] = "/etc.defaults/kivoinfo.conf";

}  // namespace

void GiveFacts() {
  for (const char* path : {"/usr/kivo/etc/cloudservice", "/usr/kivo/lib/plugin",
                           "/run/kivo/scemd.status", "/etc/crontab", "/usr/kivo/var"}) {
    test_files::Remove(path);
  }
  test_files::MakeFolder("/etc/cron.d");
  test_files::Write("/etc/timezone", std::string(kZone) + "\n");
  test_files::Write(kFacts, std::string("serial_number=\"") + kSerialNumber + "\"\nmac_address=\"" +
                                kMacAddress + "\"\nos_version=\"7.2.1\"\nmodel=\"NL224\"\n");
}

void ForgetSerialNumberAndMacAddress() { test_files::Write(kFacts, "model=\"NL224\"\n"); }

void ForgetZone() {
  test_files::Remove("/etc/timezone");
  test_files::Remove("/etc/localtime");
}

void SetStatus(int item, int state) {
  test_files::Write("/run/kivo/scemd.status",
                    std::to_string(item) + "=\"" + std::to_string(state) + "\"\n");
}

void StoreApiKey(const std::string& key) {
  test_files::Write("/usr/kivo/etc/cloudservice/api_key", key + "\n", 0600);
}

void MakePluginsFail() {
  test_files::Write("/usr/kivo/lib/plugin/zomi/login/fails", "#!/bin/sh\nexit 1\n", 0755);
}

void AddOldScheduleEntry(const std::string& command) {
  test_files::Write("/etc/crontab",
                    test_files::Read("/etc/crontab") + "0 3 * * *\troot\t" + command + "\n");
}

int OldScheduleEntries(const std::string& command) {
  const std::string text = test_files::Read("/etc/crontab");
  const std::string end = "\troot\t" + command + "\n";
  int count = 0;
  for (std::size_t at = text.find(end); at != std::string::npos; at = text.find(end, at + 1)) {
    ++count;
  }
  return count;
}

bool HasJobList(const std::string& name) { return test_files::Exists("/etc/cron.d/kivo-" + name); }

}  // namespace platform_facts
