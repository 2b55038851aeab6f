#include "account/account_service.h"

#include "account/account_files.h"
#include "account/login_lock.h"
#include "account/record_keys.h"
#include "account/report_schedule.h"
#include "account/user.h"
#include "core/error_code.h"
#include "core/log.h"
#include "core/zomi_exception.h"
#include "deviceapi/zomi_account_login.h"
#include "deviceapi/zomi_account_query_info.h"
#include "platform/report_job.h"

namespace nodelink {
namespace {

// A failure that left no code is a failure all the same: a lock that could not be had, say.
std::uint32_t FailureCode() {
  const std::uint32_t code = LastErrorCode();
  return code == kSuccess ? kGenericError : code;
}

LinkIdentity LinkOfRecord() {
  AccountData data;
  return ReadAccountDataSilently(data) == 0 ? LinkOf(data) : LinkIdentity();
}

// A link that another process made meanwhile did not fail.
void DropRecord(const LinkIdentity& link) {
  const LinkLock lock;
  if (lock.HoldsAnother(link)) return;
  if (!account_files::RemoveRecord()) {
    LogError(Here(), "Failed to unlink %s", account_files::kRecord);
  }
}

}  // namespace

Json::Value AccountService::login(const std::string& identifier, const std::string& password) {
  const LoginLock one_at_a_time(login_waits_);
  Json::Value result;
  if (ZomiAccountLogin(identifier, password, result, Quick::kNo) < 0) {
    const std::uint32_t code = FailureCode();
    LogError(Here(), "KIVOZOMIAccountLogin failed, email=%s", identifier.c_str());
    throw ZomiException(code);
  }
  return result;
}

Json::Value AccountService::query() {
  const LinkIdentity link = LinkOfRecord();
  Json::Value account(Json::objectValue);
  if (ZomiAccountQueryInfo(account, Refresh::kYes, Quick::kYes) < 0) {
    const std::uint32_t code = FailureCode();
    DropRecord(link);
    throw ZomiException(code);
  }
  return account;
}

void AccountService::updateCrondJob() { UpdateReportJob(LinkLock()); }

bool SaveReportJob() {
  ReportJob job;
  return job.Save(User().Get(record::kReportCronTimestring));
}

void UpdateReportJob(const LinkLock& /*lock*/) {
  RemoveOldReportSchedule();
  if (!IsReportDisabled() && !SaveReportJob()) LogError(Here(), "Failed to add crontab for zomi");
}

}  // namespace nodelink
