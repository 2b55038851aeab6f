#include "deviceapi/zomi_account_login.h"

#include <array>
#include <optional>

#include "account/account_link.h"
#include "account/link_lock.h"
#include "account/record_change.h"
#include "account/report_schedule.h"
#include "core/error_code.h"
#include "core/json_value.h"
#include "core/log.h"
#include "core/platform_owner.h"
#include "core/zomi_exception.h"
#include "deviceapi/zomi_account_query_info.h"
#include "kivo/cloudservice.h"
#include "kivo/log.h"
#include "klib/plugin.h"
#include "platform/report_job.h"

namespace nodelink {
namespace {

constexpr char kPath[] = "device/api/password_login";
constexpr char kLoginType[] = "acnt_pw_apikey";
constexpr unsigned int kLoggedInAction = 5;
constexpr int kMacAddressSize = 24;
constexpr int kApiKeySize = 1024;
constexpr int kRegisterMissing = 1;
constexpr int kDropApiKey = 2;  // of the cloud-service library's actions
constexpr int kLogType = 2;
constexpr int kLogLevel = 1;
constexpr unsigned int kLoggedInEvent = 0x13A00001;

// The facts of this login attempt, and the form made of them.
struct Attempt {
  std::string identifier;
  Quick quick;
  std::string host;
  SzHash form;
};

// What the server answered, and its verdict.
struct Answer {
  std::string text;
  Json::Value json;
  std::uint32_t code = kSuccess;
};

int ReadMacAddress(std::string& mac) {
  std::array<char, kMacAddressSize> buffer{};
  if (KIVOHsinfoCloudServiceGetMacAddress(buffer.data(), kMacAddressSize) < 0) {
    LogError(Here(), "Failed to get mac address");
    return Fail(kNoMacAddress);
  }
  mac = buffer.data();
  return 0;
}

int ReadApiKey(std::string& api_key) {
  std::array<char, kApiKeySize> buffer{};
  if (KIVOCloudServiceGetApiKey(buffer.data(), kRegisterMissing) < 0) {
    LogError(Here(), "Failed to get apikey");
    return Fail(CloudServiceErrorToCode());
  }
  api_key = buffer.data();
  return 0;
}

int Prepare(const std::string& password, Attempt& attempt) {
  std::string serial;
  std::string mac;
  std::string api_key;
  if (FindAccountHost(Here(), attempt.host) < 0 || ReadSerialNumber(Here(), serial) < 0 ||
      ReadMacAddress(mac) < 0 || ReadApiKey(api_key) < 0) {
    return -1;
  }
  attempt.form = MakeForm(Here(), {{"type", kLoginType},
                                   {"email", attempt.identifier.c_str()},
                                   {"passwd", password.c_str()},
                                   {"serial_no", serial.c_str()},
                                   {"api_key", api_key.c_str()},
                                   {"mac", mac.c_str()}});
  return attempt.form ? 0 : -1;
}

int Ask(const Attempt& attempt, Answer& answer) {
  if (SendForm(Here(), attempt.host, kPath, attempt.form.get(), attempt.quick, answer.text) < 0 ||
      ParseAnswer(Here(), answer.text, answer.json) < 0) {
    return -1;
  }
  const auto word = json::TextMember(answer.json, "code");
  if (!word) {
    LogError(Here(), "bad response, no code");
    return Fail(kBadResponse);
  }
  SetServerStatusError(word->c_str());
  answer.code = LastErrorCode();
  return 0;
}

// The server does not know the device's API key: registers one and puts it into the form.
int ReplaceApiKey(Attempt& attempt) {
  LogError(Here(), "ApiKey not found. Register new one.");
  std::array<char, kApiKeySize> api_key{};
  if (KIVOCloudServiceRegisterApiKey(api_key.data()) < 0) {
    LogError(Here(), "KIVOCloudServiceRegisterApiKey failed");
    return Fail(CloudServiceErrorToCode());
  }
  if (KLIBCSzHashSetValue(attempt.form.get(), "api_key", api_key.data()) < 0) {
    LogError(Here(), "Failed to alloc https request, err=[0x%04X %s:%d]", PLATFORM_ERROR_TRIPLE);
    return Fail(kSystemError);
  }
  return 0;
}

void LogRefusal(const Attempt& attempt, const Answer& answer) {
  LogError(Here(), "Failed to login %s, resp=%s", attempt.identifier.c_str(), answer.text.c_str());
}

int Refused(const Attempt& attempt, const Answer& answer) {
  if (answer.code == kApiKeyExpired) {
    (void)KIVOCloudServiceActionHandler(kDropApiKey);  // the next login registers a new one
  } else {
    LogRefusal(attempt, answer);
  }
  return Fail(answer.code);
}

// Asks, and once more with a new API key if that is what the server wants.
int AskForLogin(Attempt& attempt, Answer& answer) {
  if (Ask(attempt, answer) < 0) return -1;
  if (answer.code == kApiKeyNotFound && (ReplaceApiKey(attempt) < 0 || Ask(attempt, answer) < 0)) {
    return -1;
  }
  attempt.form.reset();  // the password in it has been used
  return answer.code == kSuccess ? 0 : Refused(attempt, answer);
}

// Its text is not logged: the key may be in it.
int ReadLink(const Answer& answer, LinkIdentity& link) {
  const auto id = json::FilledTextMember(answer.json, "id");
  const auto auth_key = json::FilledTextMember(answer.json, "auth_key");
  if (!id || !auth_key) {
    LogError(Here(), "bad response, no id or auth_key");
    return Fail(kBadResponse);
  }
  link = {*id, *auth_key};
  return 0;
}

// Nothing when it cannot be told.
std::optional<LinkIdentity> CurrentLink() {
  try {
    return LinkLock().Link();
  } catch (const ZomiException&) {
    return std::nullopt;
  }
}

int StoreLink(const LinkIdentity& link, const std::optional<LinkIdentity>& link_before) {
  try {
    const LinkLock lock;
    if (IsEndedLink(lock, link, link_before)) return FailLinkChanged(Here());
    ReplaceAccountLink(lock, link);
    return 0;
  } catch (const ZomiException& failure) {
    LogError(Here(), "Failed to set user: %s", failure.what());
    return Fail(failure.code());
  }
}

// False only when another process has ended the link, or made another one, since it was stored.
bool IsStillLinked(const LinkLock& lock, const LinkIdentity& link) {
  const auto held = lock.Link();
  return !held || *held == link;
}

// A job for the link that was stored; one that came after it has its own.
void AddReportJob(const LinkIdentity& link) {
  try {
    const LinkLock lock;
    if (IsReportDisabled() || !IsStillLinked(lock, link) || SaveReportJob()) return;
  } catch (const ZomiException&) {
    // The schedule could not be read; the login stands all the same.
  }
  LogError(Here(), "Failed to add crontab for zomi");
}

bool LinkStands(const LinkIdentity& link) {
  try {
    return IsStillLinked(LinkLock(), link);
  } catch (const ZomiException&) {
    return true;  // nobody can tell
  }
}

// Nothing that fails here undoes the login. Only another process can, and then the plug-ins are not
// told of it any more.
int FollowUp(const std::string& identifier, const LinkIdentity& link, KLIBPLUGIN* plugin) {
  AddReportJob(link);
  LogError(Here(), "Logged in Zomi Center as %s", identifier.c_str());
  (void)KIVOLogSet1(kLogType, kLogLevel, kLoggedInEvent, identifier.c_str(), "", "", "");
  Json::Value account(Json::objectValue);
  RecordChange profile;
  (void)ZomiAccountQueryInfo(account, Refresh::kYes, Quick::kYes, profile);
  if (!profile.removed() && !LinkStands(link)) return FailLinkChanged(Here());
  if (KLIBPluginAction(kLoggedInAction, plugin) < 0) {
    LogError(Here(), "KLIBPluginAction failed, action=%u", kLoggedInAction);
  }
  return 0;
}

}  // namespace

int ZomiAccountLogin(const std::string& identifier, const std::string& password,
                     Json::Value& result, Quick quick) {
  if (identifier.empty() || password.empty()) {
    LogError(Here(), "Bad Parameters");
    return Fail(kWrongParameters);
  }
  KLIBPLUGIN* plugin = nullptr;
  const int opened = KLIBPluginSDKInit("zomi", "zomi/login", &plugin, &plugin);
  const PluginOwner owner(plugin);
  if (opened < 0) {
    LogError(Here(), "KLIBPluginSDKInit failed");
    return Fail(kSystemError);
  }
  Attempt attempt{identifier, quick, "", nullptr};
  Answer answer;
  LinkIdentity link;
  if (Prepare(password, attempt) < 0) return -1;
  const std::optional<LinkIdentity> link_before = CurrentLink();
  if (AskForLogin(attempt, answer) < 0 || ReadLink(answer, link) < 0) return -1;
  answer.text = std::string();  // it may be large, and so may the profile that comes next
  if (StoreLink(link, link_before) < 0 || FollowUp(identifier, link, plugin) < 0) return -1;
  result = std::move(answer.json);
  return 0;
}

}  // namespace nodelink
