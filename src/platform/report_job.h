// The cron job that starts the periodic report.
#pragma once

#include <string>

#include "kivo/crond.h"

namespace nodelink {

// The job list of the platform's cron library that holds the job.
class ReportJob {
 public:
  ReportJob();

  // Writes the job with `schedule`, which is the cron library's to check. False when that refuses
  // it or cannot write.
  [[nodiscard]] bool Save(const std::string& schedule);

 private:
  KIVO::KIVOCrond::ConfigManager list_;
};

// False when the job could not be removed.
bool RemoveReportJob();

// Whether the administrator has switched the report off ("zomi_disable_report" in
// /etc/kivoinfo.conf).
bool IsReportDisabled();

// Removes the entry for the same command that earlier versions left in the older schedule, if there
// is one.
void RemoveOldReportSchedule();

}  // namespace nodelink
