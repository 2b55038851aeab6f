#include "devcloud/console/page.h"
#include "devcloud/http/json_fields.h"

namespace devcloud::console {
namespace {

// Those that devices tell apart; any other word can be typed in.
constexpr std::array kWords{"good",
                            "account_userid",
                            "badauth",
                            "badparam",
                            "account_not_found",
                            "account_inused",
                            "account_unverified",
                            "serial_exceed_max_account_register",
                            "apikey_not_found",
                            "apikey_expired"};

Html StateForm(const View& view, const Account& account) {
  Html html = FormStart(view, "inline", {{"action", "set_state"}, {"account", account.user_id}});
  html << "<label>" << Unseen("State of " + Cut(account.email))
       << "<input name=\"state\" list=\"words\" required autocomplete=\"off\" value=\""
       << account.state << "\"></label><button>Set" << Unseen(" state of " + Cut(account.email))
       << "</button></form>";
  return html;
}

std::string DevicesOf(Store& store, const std::string& user_id) {
  std::string serials;
  for (const Device& device : store.Devices()) {
    const std::optional<Link> link = store.FindLink(device.serial);
    if (!link || link->user_id != user_id) continue;
    serials += (serials.empty() ? "" : ", ") + device.serial;
  }
  return serials.empty() ? "none" : serials;
}

Html AccountTable(const View& view) {
  Table table("All accounts", {"E-mail", "Name", "Devices", "Schedule for its devices", "State"});
  for (const Account& account : view.state.store.Accounts()) {
    table.AddRow(
        "account-" + account.user_id,
        {ToCell(account.email), ToCell(account.full_name),
         ToCell(DevicesOf(view.state.store, account.user_id)),
         ToCell(account.report_cron_timestring.value_or("none")), StateForm(view, account)});
  }
  return table.ToHtml("There is no account yet.");
}

Html WordList() {
  Html html;
  html << "<datalist id=\"words\">";
  for (const char* word : kWords) html << "<option value=\"" << std::string(word) << "\">";
  html << "</datalist>\n";
  return html;
}

Html Show(const View& view) {
  Html html;
  html << "<p class=\"note\">The state is the word that the devices of an account are answered "
          "with. With another word than good and account_userid nobody can sign in either.</p>\n"
       << AccountTable(view) << WordList() << "<h2>New account</h2>\n"
       << FormStart(view, "fields", {{"action", "add"}})
       << "<label>E-mail<input type=\"email\" name=\"email\" required autocomplete=\"off\">"
          "</label>\n<label>Password<input type=\"password\" name=\"password\" required "
          "autocomplete=\"new-password\"></label>\n<label>Full name<input name=\"full_name\" "
          "autocomplete=\"off\"></label>\n<button class=\"main\">Add account</button></form>\n";
  return html;
}

std::string Add(Store& store, const Form& form) {
  Account account{.email = form.Get("email"), .full_name = form.Get("full_name")};
  const std::string password = form.Get("password");
  if (account.email.empty() || password.empty()) {
    throw BadInput("An account needs an e-mail and a password.");
  }
  if (!store.AddAccount(account, password)) throw BadInput("This account exists already.");
  return "account-" + account.user_id;
}

std::string SetState(CloudState& state, const Form& form) {
  Store& store = state.store;
  Transaction transaction(state.database);
  std::optional<Account> account = store.FindAccount(form.Get("account"));
  if (!account) throw BadInput("This account no longer exists.");
  account->state = form.Get("state");
  if (account->state.empty()) throw BadInput("The state must not be empty.");
  if (!store.UpdateAccount(*account)) throw BadInput("This account cannot be changed.");
  transaction.Commit();
  return "account-" + account->user_id;
}

std::string Act(const View& view, const Form& form) {
  if (form.Get("action") == "add") return Add(view.state.store, form);
  if (form.Get("action") == "set_state") return SetState(view.state, form);
  throw BadInput("This page has no such action.");
}

}  // namespace

const Page kAccountsPage{"accounts", "Accounts", Show, Act};

}  // namespace devcloud::console
