// The report job, rewritten from the record's schedule.
#pragma once

#include "account/link_lock.h"

namespace nodelink {

// AccountService::updateCrondJob (account/account_service.h) for a caller that holds the link.
void UpdateReportJob(const LinkLock& lock);

}  // namespace nodelink
