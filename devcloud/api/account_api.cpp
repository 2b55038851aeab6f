#include "devcloud/api/account_api.h"

#include <sstream>

#include "devcloud/api/code_challenge.h"
#include "devcloud/api/device_api.h"
#include "devcloud/http/json_text.h"

namespace devcloud {
namespace {

using Endpoint = Response (*)(CloudState& state, const Request& request);

Response Unauthorized(const std::string& error) {
  Response response = JsonError(401, error);
  response.headers.push_back({"WWW-Authenticate", "Bearer error=\"invalid_token\""});
  return response;
}

std::string BearerToken(const Request& request) {
  const std::string value = request.HeaderOr("Authorization");
  constexpr std::string_view kScheme = "Bearer ";
  return EqualsIgnoringCase(value.substr(0, kScheme.size()), kScheme) ? value.substr(kScheme.size())
                                                                      : std::string();
}

std::string Join(const std::vector<std::string>& words) {
  std::string text;
  for (const std::string& word : words) text += (text.empty() ? "" : " ") + word;
  return text;
}

std::optional<Client> FindCaller(CloudState& state, const Request& request) {
  return state.clients.Find(request.HeaderOr("X-Client-ID"));
}

// A browser login is where the cloud first hears of a device that never registered a key.
std::optional<Link> LinkByScope(CloudState& state, const Family& family) {
  const std::string serial = ScopeValue(family.grant.scope, "sn");
  if (!state.store.FindDevice(serial)) {
    state.store.PutDevice({.serial = serial, .mac = ScopeValue(family.grant.scope, "mac")});
  }
  return state.store.LinkDevice(serial, family.grant.user_id);
}

Response ExchangeAuthKey(CloudState& state, const Request& request) {
  if (!request.body.empty()) return JsonError(400, "the body must be empty");
  const std::optional<Family> family =
      state.tokens.FindByToken(BearerToken(request), TokenKind::kAccess);
  const auto account = family ? state.store.FindAccount(family->grant.user_id) : std::nullopt;
  if (!account || !IsSuccessWord(account->state)) {
    return Unauthorized("the token is expired or revoked");
  }
  if (!IsValidSerial(ScopeValue(family->grant.scope, "sn")) ||
      !IsValidMac(ScopeValue(family->grant.scope, "mac"))) {
    return JsonError(403, "the token's scope names no device (sn:SERIAL mac:ADDRESS)");
  }
  Transaction transaction(state.database);
  const std::optional<Link> link = LinkByScope(state, *family);
  if (!link) return JsonError(403, "serial_exceed_max_account_register");
  transaction.Commit();
  Json::Value answer(Json::objectValue);
  answer["user_id"] = link->user_id;
  answer["auth_key"] = link->auth_key;
  return JsonResponse(200, answer);
}

Response GrantCodeTo(CloudState& state, const Client& client, const Form& form) {
  if (!state.clients.MayRedirect(client, form.Get("redirect_url"))) {
    return JsonError(400, "redirect_url is not registered");
  }
  if (form.Get("state").empty() || !IsCodeChallenge(form.Get("code_challenge"))) {
    return JsonError(400, "state or code_challenge is missing or invalid");
  }
  const std::optional<Link> link = state.store.FindLinkByAuthKey(form.Get("auth_key"));
  const auto account = link ? state.store.FindAccount(link->user_id) : std::nullopt;
  if (!account || !IsSuccessWord(account->state)) return Unauthorized("auth_key is not accepted");
  const std::string scope = Join(form.GetAll("scopes[]"));
  const std::string serial = ScopeValue(scope, "sn");
  if (!serial.empty() && serial != link->serial) {
    return JsonError(400, "scopes[] of another device");
  }
  Json::Value answer(Json::objectValue);
  answer["grant_code"] = state.tokens.IssueCode({.grant = {client.client_id, link->user_id, scope},
                                                 .redirect_uri = form.Get("redirect_url"),
                                                 .code_challenge = form.Get("code_challenge")});
  answer["state"] = form.Get("state");
  return JsonResponse(200, answer);
}

Response GrantCode(CloudState& state, const Request& request) {
  const std::optional<Form> form = ReadForm(request);
  const std::optional<Client> client = FindCaller(state, request);
  if (!client) return JsonError(400, "X-Client-ID is missing or unknown");
  if (!form || form->Get("client_id") != client->client_id) {
    return JsonError(400, "client_id is not that of X-Client-ID");
  }
  return GrantCodeTo(state, *client, *form);
}

std::string LogOut(CloudState& state, const Form& form) {
  for (const char* name : {"serial_no", "id", "auth_key"}) {
    if (form.Find(name) == nullptr) return "badparam";
  }
  Transaction transaction(state.database);
  // A device that was unlinked here learns of it by a refused report and then logs out: it must be
  // able to.
  if (!state.store.FindLink(form.Get("serial_no"))) return kGoodWord;
  const std::optional<Link> link = FindProvenLink(state.store, form);
  const auto account = link ? state.store.FindAccount(link->user_id) : std::nullopt;
  if (!account) return "badauth";
  if (!IsSuccessWord(account->state)) return account->state;
  const auto family = state.tokens.FindByAnyToken(form.Get("access_token"), TokenKind::kAccess);
  if (family && family->grant.user_id == link->user_id) state.tokens.RevokeFamily(family->id);
  state.store.Unlink(link->serial);
  transaction.Commit();
  return account->state;
}

// Devices read the status word of a logout out of answers with status 200 only.
Response Logout(CloudState& state, const Request& request) {
  if (!FindCaller(state, request)) return JsonError(400, "X-Client-ID is missing or unknown");
  const std::optional<Form> form = ReadForm(request);
  Json::Value answer(Json::objectValue);
  answer["code"] = form ? LogOut(state, *form) : "badparam";
  return JsonResponse(200, answer);
}

}  // namespace

void AddAccountApi(Router& router, CloudState& state) {
  const auto add = [&](const char* path, Endpoint endpoint) {
    router.Add("POST", path, [&state, endpoint](const Request& request, const auto&) {
      return endpoint(state, request);
    });
  };
  add("/oauth2/api/v1/device/core/authkey/exchange", ExchangeAuthKey);
  add("/migration/api/v1/device/core/authorization_code/grant", GrantCode);
  add("/device/api/logout", Logout);
}

std::string ScopeValue(const std::string& scope, const std::string& name) {
  std::istringstream words(scope);
  const std::string start = name + ":";
  for (std::string word; words >> word;) {
    if (word.substr(0, start.size()) == start) return word.substr(start.size());
  }
  return {};
}

}  // namespace devcloud
