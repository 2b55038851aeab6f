// The cron job that starts the periodic report.
#pragma once

namespace nodelink {

// Whether the administrator has switched the report off ("zomi_disable_report" in
// /etc/kivoinfo.conf).
bool IsReportDisabled();

// Writes the job with the record's schedule, which is the cron library's to check. False when that
// refuses it or cannot write. Throws ZomiException when the record cannot be read.
bool SaveReportJob();

// False when the job could not be removed.
bool RemoveReportJob();

// Removes the entry for the same command that earlier versions left in the older schedule, if there
// is one.
void RemoveOldReportSchedule();

}  // namespace nodelink
