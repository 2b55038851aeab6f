// The report job, written with the record's schedule.
#pragma once

#include "account/link_lock.h"

namespace nodelink {

// False when the cron library refuses the schedule or cannot write the job. Throws ZomiException
// with kSystemError when privileges for reading the record cannot be raised.
bool SaveReportJob();

// AccountService::updateCrondJob (account/account_service.h) for a caller that holds the link.
void UpdateReportJob(const LinkLock& lock);

}  // namespace nodelink
