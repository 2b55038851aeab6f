#include "account/account_service.h"

#include <unistd.h>

#include "account/record_keys.h"
#include "base/atomic_replace.h"
#include "core/error_code.h"
#include "core/log.h"
#include "core/zomi_exception.h"
#include "deviceapi/zomi_account_login.h"
#include "deviceapi/zomi_account_query_info.h"
#include "platform/report_job.h"

namespace nodelink {

Json::Value AccountService::login(const std::string& identifier, const std::string& password) {
  Json::Value result;
  if (ZomiAccountLogin(identifier, password, result, Quick::kNo) < 0) {
    const std::uint32_t code = LastErrorCode();
    LogError(Here(), "KIVOZOMIAccountLogin failed, email=%s", identifier.c_str());
    throw ZomiException(code);
  }
  return result;
}

Json::Value AccountService::query() {
  Json::Value account(Json::objectValue);
  if (ZomiAccountQueryInfo(account, Refresh::kYes, Quick::kYes) < 0) {
    const std::uint32_t code = LastErrorCode();
    if (unlink(record::kPath) != 0) {
      LogError(Here(), "Failed to unlink %s", record::kPath);
    }
    base::FlushFolderOf(record::kPath);
    throw ZomiException(code);
  }
  return account;
}

void AccountService::updateCrondJob() {
  RemoveOldReportSchedule();
  if (!IsReportDisabled() && !SaveReportJob()) {
    LogError(Here(), "Failed to add crontab for zomi");
  }
}

}  // namespace nodelink
