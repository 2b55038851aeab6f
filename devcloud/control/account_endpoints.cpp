#include "devcloud/control/endpoint.h"
#include "devcloud/http/json_fields.h"
#include "devcloud/state/account_json.h"

namespace devcloud::control {
namespace {

Response ListAccounts(const Call& call) { return Listed(call.state.store.Accounts()); }

Response AddAccount(const Call& call) {
  JsonFields fields(call.request.body);
  Account account;
  std::string password;
  fields.Text("user_id", account.user_id);
  fields.Text("password", password);
  ReadFields(fields, account);
  fields.Finish();
  if (password.empty()) throw BadInput("password must not be empty");
  if (!call.state.store.AddAccount(account, password)) {
    throw Conflict("this account exists already");
  }
  return Created(ToJson(account));
}

Response ShowAccount(const Call& call) {
  return Shown(ToJson(GetAccount(call, call.parameters.at(0))));
}

Response ChangeAccount(const Call& call) {
  JsonFields fields(call.request.body);
  Transaction transaction(call.state.database);
  Account account = GetAccount(call, call.parameters.at(0));
  ReadFields(fields, account);
  std::string password;
  fields.Text("password", password);
  fields.Finish();
  if (!call.state.store.UpdateAccount(account)) throw Conflict("this e-mail is taken");
  if (!password.empty()) call.state.store.SetPassword(account.user_id, password);
  transaction.Commit();
  return Shown(ToJson(account));
}

Response RemoveAccount(const Call& call) {
  call.state.store.RemoveAccount(GetAccount(call, call.parameters.at(0)).user_id);
  return Done();
}

constexpr auto kEndpoints = std::to_array<Endpoint>({
    {"GET", "/v1/accounts", ListAccounts},
    {"POST", "/v1/accounts", AddAccount},
    {"GET", "/v1/accounts/*", ShowAccount},
    {"PATCH", "/v1/accounts/*", ChangeAccount},
    {"DELETE", "/v1/accounts/*", RemoveAccount},
});

}  // namespace

const std::span<const Endpoint> kAccountEndpoints{kEndpoints};

}  // namespace devcloud::control
