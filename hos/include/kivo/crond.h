// Job lists of the system's cron daemon.
#pragma once

#include <json/value.h>

#include <string>

namespace KIVO::KIVOCrond {

// The named job list `name`. No operation throws.
class ConfigManager {
 public:
  // `flag` is false.
  ConfigManager(const std::string& name, bool flag);

  // Replaces the list by `jobs`: an array of objects with "name", "period" ("crontab"), "crontab"
  // (five schedule fields), "user" and "cmd_list" (array of the command's words). A schedule field
  // may be `~`, `low~`, `~high` or `low~high`: a value drawn once for each device and job. The
  // name of the list and of a job is of letters, digits, '_' and '-', the user's of small letters,
  // digits, '_' and '-'; a command word holds no control character. Atomic;
  // a list that would not change is left untouched. False, with the list as it was, when a job is
  // not of this shape or the list cannot be written.
  [[nodiscard]] bool Save(const Json::Value& jobs);

  // Removes the list. True when it is gone, also when it was not there.
  bool Remove();

 private:
  std::string name_;
};

}  // namespace KIVO::KIVOCrond

extern "C" {

// Removes the entries of the older schedule whose command is exactly `command`.
// Returns 0 or a positive number when none is left, a negative number on failure.
int KIVOScheduleRemove(const char* command);
}
