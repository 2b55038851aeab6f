#include <map>

#include "devcloud/console/page.h"
#include "devcloud/http/json_fields.h"

namespace devcloud::console {
namespace {

constexpr std::size_t kMostRows = 100;

using Change = bool (TokenStore::*)(std::int64_t id);
constexpr std::array<std::pair<const char*, Change>, 4> kChanges{{
    {"revoke_family", &TokenStore::RevokeFamily},
    {"expire_family", &TokenStore::ExpireFamily},
    {"revoke_token", &TokenStore::RevokeToken},
    {"expire_token", &TokenStore::ExpireToken},
}};

Html Buttons(const View& view, const std::string& kind, std::int64_t id, const std::string& name) {
  const std::string number = std::to_string(id);
  Html html = ButtonForm(view, "Expire", name, {{"action", "expire_" + kind}, {"id", number}});
  html << ButtonForm(view, "Revoke", name, {{"action", "revoke_" + kind}, {"id", number}});
  return html;
}

std::string EmailOf(Store& store, const std::string& user_id) {
  const std::optional<Account> account = store.FindAccount(user_id);
  return account ? account->email : user_id;
}

Html FamilyTable(const View& view, const std::vector<Family>& families) {
  Table table("Sign-ins, newest first",
              {"Sign-in", "Account", "Client", "Scope", "Started", "State", "Change"});
  for (std::size_t i = families.size(); i > 0 && families.size() - i < kMostRows; --i) {
    const Family& family = families[i - 1];
    const std::string id = std::to_string(family.id);
    table.AddRow(
        "family-" + id,
        {ToCell(id), ToCell(EmailOf(view.state.store, family.grant.user_id)),
         ToCell(family.grant.client_id), ToCell(family.grant.scope),
         ToCell(ToTimeText(family.created_at)), ToCell(family.revoked ? "revoked" : "good"),
         Buttons(view, "family", family.id, "sign-in " + id)});
  }
  return table.ToHtml("Nobody has signed in yet.");
}

const char* StateOf(const TokenInfo& token, bool family_revoked, std::int64_t now) {
  if (token.revoked) return "revoked";
  if (family_revoked) return "revoked with its sign-in";
  if (token.used) return "used";
  return token.expires_at <= now ? "expired" : "good";
}

Html TokenTable(const View& view, const std::vector<Family>& families) {
  std::map<std::int64_t, bool> revoked;
  for (const Family& family : families) revoked[family.id] = family.revoked;
  Table table("Tokens, newest first",
              {"Token", "Sign-in", "Kind", "Issued", "Expires", "State", "Change"});
  const std::vector<TokenInfo> tokens = view.state.tokens.Tokens();
  for (std::size_t i = tokens.size(); i > 0 && tokens.size() - i < kMostRows; --i) {
    const TokenInfo& token = tokens[i - 1];
    const std::string id = std::to_string(token.id);
    table.AddRow("token-" + id,
                 {ToCell(id), ToCell(std::to_string(token.family_id)), ToCell(ToName(token.kind)),
                  ToCell(ToTimeText(token.issued_at)), ToCell(ToTimeText(token.expires_at)),
                  ToCell(StateOf(token, revoked[token.family_id], view.state.clock())),
                  Buttons(view, "token", token.id, "token " + id)});
  }
  return table.ToHtml("No token has been issued yet.");
}

Html Show(const View& view) {
  const std::vector<Family> families = view.state.tokens.Families();
  Html html;
  html << "<p class=\"note\">All tokens that come from one sign-in are revoked together when a "
          "refresh token is used twice.</p>\n"
       << FamilyTable(view, families) << TokenTable(view, families);
  return html;
}

std::string Act(const View& view, const Form& form) {
  const std::string action = form.Get("action");
  const std::int64_t id = ReadId(form);
  for (const auto& [name, change] : kChanges) {
    if (action != name) continue;
    if (!(view.state.tokens.*change)(id)) throw BadInput("There is no such token.");
    return action.substr(action.find('_') + 1) + "-" + std::to_string(id);
  }
  throw BadInput("This page has no such action.");
}

}  // namespace

const Page kTokensPage{"tokens", "Tokens", Show, Act};

}  // namespace devcloud::console
