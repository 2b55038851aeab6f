#include "platform/report_job.h"

#include <json/value.h>

#include "account/user.h"
#include "kivo/crond.h"
#include "klibc/keyvalue.h"

namespace nodelink {
namespace {

constexpr char kJobListName[] = "zomi";
constexpr char kProgram[] = "/usr/kivo/bin/nodelink";
constexpr char kOption[] = "--report_info";

KIVO::KIVOCrond::ConfigManager JobList() { return {kJobListName, false}; }

}  // namespace

bool IsReportDisabled() {
  return KLIBCFileCheckKeyValue("/etc/kivoinfo.conf", "zomi_disable_report", "yes", 0) == 1;
}

bool SaveReportJob() {
  Json::Value jobs(Json::arrayValue);
  Json::Value job(Json::objectValue);
  KIVO::KIVOCrond::ConfigManager list = JobList();
  job["name"] = "job";
  job["period"] = "crontab";
  job["crontab"] = User().Get(record::kReportCronTimestring);
  job["user"] = "root";
  job["cmd_list"].append(kProgram);
  job["cmd_list"].append(kOption);
  jobs.append(job);
  return list.Save(jobs);
}

bool RemoveReportJob() { return JobList().Remove(); }

void RemoveOldReportSchedule() {
  const std::string command = std::string(kProgram) + " " + kOption;
  (void)KIVOScheduleRemove(command.c_str());
}

}  // namespace nodelink
