#include "devcloud/api/device_api.h"

#include <algorithm>
#include <initializer_list>
#include <utility>

#include "devcloud/api/device_token.h"
#include "devcloud/http/json_text.h"
#include "devcloud/state/account_json.h"
#include "devcloud/state/secrets.h"

namespace devcloud {
namespace {

using Endpoint = Response (*)(CloudState& state, const Form& form);

constexpr char kBadParameter[] = "badparam";
constexpr char kBadAuth[] = "badauth";

// Devices read a status word out of an answer with status 400 as well as 200.
Response WordResponse(const std::string& word, Json::Value answer = Json::objectValue) {
  answer["code"] = word;
  return JsonResponse(IsSuccessWord(word) ? 200 : 400, answer);
}

bool HoldsAll(const Form& form, std::initializer_list<const char*> names) {
  return std::all_of(names.begin(), names.end(),
                     [&form](const char* name) { return form.Find(name) != nullptr; });
}

// The token is made from the first "hs_sn": a device may send its serial number a second time
// among its own parameters.
bool ProvesItself(const Form& form) {
  const std::string expected =
      DeviceToken(form.Get("hs_sn"), form.Get("zomiID"), form.Get("zomiPW"));
  const std::string* serial = form.Find("serial_no");
  return SecretsEqual(form.Get("hs_token"), expected) &&
         (serial == nullptr || *serial == form.Get("hs_sn"));
}

Response AnswerForm(CloudState& state, const Request& request, Endpoint endpoint) {
  const std::optional<Form> form = ReadForm(request);
  return form ? endpoint(state, *form) : WordResponse(kBadParameter);
}

Response AnswerProvenForm(CloudState& state, const Request& request, Endpoint endpoint) {
  const std::optional<Form> form = ReadForm(request);
  if (!form || !HoldsAll(*form, {"hs_sn", "hs_token"}) || !IsValidSerial(form->Get("hs_sn"))) {
    return WordResponse(kBadParameter);
  }
  return ProvesItself(*form) ? endpoint(state, *form) : WordResponse(kBadAuth);
}

std::optional<std::string> ScheduleFor(CloudState& state, const std::string& serial,
                                       const Account& account) {
  const std::optional<Device> device = state.store.FindDevice(serial);
  if (device && device->report_cron_timestring) return device->report_cron_timestring;
  return account.report_cron_timestring;
}

Response Query(CloudState& state, const Form& form) {
  if (!HoldsAll(form, {"id", "auth_key", "serial_no"})) return WordResponse(kBadParameter);
  const std::optional<Link> link = FindProvenLink(state.store, form);
  const std::optional<Account> account =
      link ? state.store.FindAccount(link->user_id) : std::nullopt;
  if (!account || account->state == kBadAuth) return WordResponse(kBadAuth);
  // A device looks for the profile's members before it looks at the word.
  Json::Value answer = ProfileToJson(*account);
  if (const auto schedule = ScheduleFor(state, link->serial, *account)) {
    answer["report_cron_timestring"] = *schedule;
  }
  return WordResponse(account->state, answer);
}

void NoteReport(CloudState& state, const std::string& serial, const std::string& timezone,
                const std::optional<std::string>& schedule) {
  std::optional<Device> device = state.store.FindDevice(serial);
  if (!device) return;
  device->reported_at = state.clock();
  device->reported_timezone = timezone;
  device->schedule_given = schedule;
  state.store.PutDevice(*device);
}

Response Report(CloudState& state, const Form& form) {
  if (!HoldsAll(form, {"id", "auth_key", "timezone", "serial_no", "hs_info"})) {
    return WordResponse(kBadParameter);
  }
  Transaction transaction(state.database);
  const std::optional<Link> link = FindProvenLink(state.store, form);
  const std::optional<Account> account =
      link ? state.store.FindAccount(link->user_id) : std::nullopt;
  if (!account) return WordResponse(kBadAuth);
  Json::Value answer(Json::objectValue);
  const auto schedule = ScheduleFor(state, link->serial, *account);
  if (schedule) answer["report_cron_timestring"] = *schedule;
  NoteReport(state, link->serial, form.Get("timezone"), schedule);
  transaction.Commit();
  return WordResponse(account->state, answer);
}

// The word against the device's key, "good" when there is none.
std::string JudgeApiKey(CloudState& state, const Form& form) {
  const std::optional<Device> device = state.store.FindDevice(form.Get("serial_no"));
  const bool known = device && device->api_key && device->mac == form.Get("mac") &&
                     SecretsEqual(*device->api_key, form.Get("api_key"));
  if (!known) return "apikey_not_found";
  return device->api_key_expired ? "apikey_expired" : kGoodWord;
}

// The word against the account, "good" when there is none.
std::string JudgeCredentials(CloudState& state, const Form& form) {
  const std::optional<Account> account = state.store.FindAccountByEmail(form.Get("email"));
  if (!account) return "account_not_found";
  if (!state.store.PasswordFits(account->user_id, form.Get("passwd"))) return kBadAuth;
  return account->state;
}

Response PasswordLogin(CloudState& state, const Form& form) {
  if (!HoldsAll(form, {"email", "passwd", "serial_no", "api_key", "mac"}) ||
      form.Get("type") != "acnt_pw_apikey") {
    return WordResponse(kBadParameter);
  }
  Transaction transaction(state.database);
  std::string word = JudgeApiKey(state, form);
  if (IsSuccessWord(word)) word = JudgeCredentials(state, form);
  if (!IsSuccessWord(word)) return WordResponse(word);
  const std::optional<Account> account = state.store.FindAccountByEmail(form.Get("email"));
  const std::optional<Link> link = state.store.LinkDevice(form.Get("serial_no"), account->user_id);
  if (!link) return WordResponse("serial_exceed_max_account_register");
  transaction.Commit();
  Json::Value answer(Json::objectValue);
  answer["id"] = link->user_id;
  answer["auth_key"] = link->auth_key;
  return WordResponse(word, answer);
}

Response RegisterApiKey(CloudState& state, const Form& form) {
  const std::string serial = form.Get("serial_no");
  const std::string mac = form.Get("mac");
  if (!IsValidSerial(serial) || !IsValidMac(mac)) return WordResponse(kBadParameter);
  Transaction transaction(state.database);
  Device device = state.store.FindDevice(serial).value_or(Device{.serial = serial});
  device.mac = mac;
  device.api_key = RandomToken();
  device.api_key_expired = false;
  state.store.PutDevice(device);
  transaction.Commit();
  Json::Value answer(Json::objectValue);
  answer["api_key"] = *device.api_key;
  return JsonResponse(200, answer);
}

}  // namespace

void AddDeviceApi(Router& router, CloudState& state) {
  const auto add_proven = [&](const char* path, Endpoint endpoint) {
    router.Add("POST", path, [&state, endpoint](const Request& request, const auto&) {
      return AnswerProvenForm(state, request, endpoint);
    });
  };
  add_proven("/device/api/user/query", Query);
  add_proven("/device/api/report", Report);
  add_proven("/device/api/password_login", PasswordLogin);
  router.Add("POST", "/cloudservice/api/v1/apikey/register",
             [&state](const Request& request, const auto&) {
               return AnswerForm(state, request, RegisterApiKey);
             });
}

std::optional<Link> FindProvenLink(Store& store, const Form& form) {
  std::optional<Link> link = store.FindLink(form.Get("serial_no"));
  const bool fits =
      link && link->user_id == form.Get("id") && SecretsEqual(link->auth_key, form.Get("auth_key"));
  return fits ? link : std::nullopt;
}

}  // namespace devcloud
