#include "platform/report_job.h"

#include <json/value.h>

#include "klibc/keyvalue.h"

namespace nodelink {
namespace {

constexpr char kJobListName[] = "zomi";
constexpr char kProgram[] = "/usr/kivo/bin/nodelink";
constexpr char kOption[] = "--report_info";

}  // namespace

ReportJob::ReportJob() : list_(kJobListName, false) {}

bool ReportJob::Save(const std::string& schedule) {
  Json::Value jobs(Json::arrayValue);
  Json::Value job(Json::objectValue);
  job["name"] = "job";
  job["period"] = "crontab";
  job["crontab"] = schedule;
  job["user"] = "root";
  job["cmd_list"].append(kProgram);
  job["cmd_list"].append(kOption);
  jobs.append(job);
  return list_.Save(jobs);
}

bool RemoveReportJob() { return KIVO::KIVOCrond::ConfigManager(kJobListName, false).Remove(); }

bool IsReportDisabled() {
  return KLIBCFileCheckKeyValue("/etc/kivoinfo.conf", "zomi_disable_report", "yes", 0) == 1;
}

void RemoveOldReportSchedule() {
  const std::string command = std::string(kProgram) + " " + kOption;
  (void)KIVOScheduleRemove(command.c_str());
}

}  // namespace nodelink
