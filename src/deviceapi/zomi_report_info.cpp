#include "deviceapi/zomi_report_info.h"

#include <array>

#include "account/account_data.h"
#include "account/link_lock.h"
#include "account/report_schedule.h"
#include "account/server_info.h"
#include "account/user.h"
#include "core/error_code.h"
#include "core/json_value.h"
#include "core/log.h"
#include "core/platform_owner.h"
#include "core/zomi_exception.h"
#include "deviceapi/device_api_flow.h"
#include "kivo/zone.h"
#include "pkce/account_pkce_service.h"
#include "platform/hos_service.h"
#include "platform/report_job.h"

namespace nodelink {
namespace {

constexpr char kPath[] = "device/api/report";
constexpr int kZoneNameSize = 256;
constexpr int kZoneInfoSize = 1024;

int ReadZoneName(std::string& zone) {
  std::array<char, kZoneNameSize> buffer{};
  int needed = -1;
  if (KIVOZoneGet(buffer.data(), kZoneNameSize, &needed) < 0) {
    LogError(Here(), "failed to get time zone, size need: %d, err=[0x%04X %s:%d]", needed,
             PLATFORM_ERROR_TRIPLE);
    return Fail(kSystemError);
  }
  zone = buffer.data();
  return 0;
}

// The zone's name in the time-zone database.
int ReadTimezone(std::string& timezone) {
  std::string zone;
  if (ReadZoneName(zone) < 0) return -1;
  const SzHash info(KLIBCSzHashAlloc(kZoneInfoSize));
  if (!info) {
    LogError(Here(), "Failed to alloc pTZInfo, err=[0x%04X %s:%d]", PLATFORM_ERROR_TRIPLE);
    return Fail(kSystemError);
  }
  if (KIVOZoneGetInfo(zone.c_str(), info.get()) < 1) {
    LogError(Here(), "failed to get timezone info[0x%04X %s:%d]", PLATFORM_ERROR_TRIPLE);
    return Fail(kSystemError);
  }
  const char* name = KLIBCSzHashGetValue(info.get(), "nameInTZDB");
  if (name == nullptr) {
    LogError(Here(), "failed to get tmz[0x%04X %s:%d]", PLATFORM_ERROR_TRIPLE);
    return Fail(kSystemError);
  }
  timezone = name;
  return 0;
}

int Ask(const AccountData& account, std::string& text) {
  std::string host;
  std::string timezone;
  std::string serial;
  if (FindAccountHost(Here(), host) < 0 || ReadTimezone(timezone) < 0 ||
      ReadSerialNumber(Here(), serial) < 0) {
    return -1;
  }
  const SzHash form = MakeForm(Here(), {{"id", account.zomi_id_serial.c_str()},
                                        {"auth_key", account.hs_auth_key.c_str()},
                                        {"timezone", timezone.c_str()},
                                        {"serial_no", serial.c_str()},
                                        {"hs_info", ""}});
  return form ? SendForm(Here(), host, kPath, form.get(), Quick::kNo, text) : -1;
}

// Whatever the verdict: the server may spread its devices anew while it refuses this one. A
// schedule that cannot be stored does not keep the verdict from being acted on.
void StoreSchedule(const Json::Value& answer) {
  const auto schedule = json::TextMember(answer, "report_cron_timestring");
  if (!schedule) return;
  try {
    User().Set(record::kReportCronTimestring, *schedule);
  } catch (const ZomiException& failure) {
    LogError(Here(), "Failed to set user: %s", failure.what());
  }
}

void LogOut(const AccountData& account) {
  LogError(Here(), "Failed to auth [%s] on regularly report, auto logout.",
           account.zomi_id.c_str());
  try {
    AccountPkceServiceImpl().LogoutLink(LinkOf(account), AccessToken::kInclude);
  } catch (const ZomiException& failure) {
    SetLastErrorCode(failure.code());
    LogError(Here(), "Failed to logout");
  }
}

bool EndsTheLink(std::uint32_t code) { return code == kAuthFailed || code == kAccountNotFound; }

// The administrators learn why the device is about to lose its account.
void NotifyOfTheEnd(const AccountData& account, std::uint32_t code) {
  if (code == kAuthFailed) {
    HosService::notify("zomi_force_logout",
                       {{"%EMAIL%", account.zomi_id}, {"%LINK%", ServerInfo().AccountHost()}});
  } else {
    HosService::notify("zomi_deletion_logout", {{"%EMAIL%", account.zomi_id}});
  }
}

// What the answer means for this device; false when it is an answer for another link.
bool Act(const AccountData& account, const Json::Value& answer, std::uint32_t code) {
  const LinkLock lock;
  if (!lock.Holds(LinkOf(account))) return false;
  StoreSchedule(answer);
  if (code == kSuccess) {
    UpdateReportJob(lock);
  } else if (EndsTheLink(code)) {
    NotifyOfTheEnd(account, code);
  }
  return true;
}

int Refused(const AccountData& account, std::uint32_t code, const std::string& text) {
  if (EndsTheLink(code)) LogOut(account);
  SetLastErrorCode(code);
  LogError(Here(), "Failed to query service check, resp=%s", text.c_str());
  return -1;
}

// A token that cannot be renewed now is renewed by whoever needs it next.
int Accepted() {
  try {
    (void)AccountPkceServiceImpl().GetAccessTokenWithRescue();
  } catch (const ZomiException& failure) {
    LogError(Here(), "Failed to renew token: %s", failure.what());
  }
  return 0;
}

int Judge(const AccountData& account, const std::string& text) {
  Json::Value answer;
  if (ParseAnswer(Here(), text, answer) < 0) return -1;
  const auto word = json::TextMember(answer, "code");
  if (!word) return Fail(kBadResponse);
  const std::uint32_t code = ServerStatusToErrorCode(word->c_str());
  if (!Act(account, answer, code)) return FailLinkChanged(Here());
  return code == kSuccess ? Accepted() : Refused(account, code, text);
}

}  // namespace

int ReportDeviceInfo() {
  SetLastErrorCode(kSuccess);
  AccountData account;
  if (ReadLinkedAccountData(account) < 0 || IsReportDisabled()) return 0;
  try {
    std::string text;
    return Ask(account, text) < 0 ? -1 : Judge(account, text);
  } catch (const ZomiException& failure) {
    return Fail(failure.code());  // the record cannot be read any more, or not be locked
  }
}

}  // namespace nodelink
