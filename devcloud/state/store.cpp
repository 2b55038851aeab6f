#include "devcloud/state/store.h"

#include <json/json.h>

#include "devcloud/http/json_text.h"
#include "devcloud/state/secrets.h"

namespace devcloud {
namespace {

constexpr char kSchema[] = R"sql(
CREATE TABLE IF NOT EXISTS accounts(
  user_id TEXT PRIMARY KEY,
  password_hash TEXT NOT NULL,
  email TEXT NOT NULL UNIQUE COLLATE NOCASE,
  full_name TEXT NOT NULL,
  country TEXT NOT NULL,
  timezone TEXT NOT NULL,
  notify_language TEXT NOT NULL,
  state TEXT NOT NULL,
  activated INTEGER NOT NULL,
  disabled INTEGER NOT NULL,
  enews INTEGER NOT NULL,
  enews_local_promotion INTEGER NOT NULL,
  critical_release INTEGER NOT NULL,
  realname_validation_pass INTEGER NOT NULL,
  critical_version_list TEXT NOT NULL,
  report_cron_timestring TEXT
) STRICT;
CREATE TABLE IF NOT EXISTS devices(
  serial TEXT PRIMARY KEY,
  mac TEXT NOT NULL,
  api_key TEXT,
  api_key_expired INTEGER NOT NULL,
  max_accounts INTEGER NOT NULL,
  report_cron_timestring TEXT,
  reported_at INTEGER NOT NULL,
  reported_timezone TEXT NOT NULL,
  schedule_given TEXT
) STRICT;
CREATE TABLE IF NOT EXISTS links(
  serial TEXT PRIMARY KEY REFERENCES devices ON DELETE CASCADE,
  user_id TEXT NOT NULL REFERENCES accounts ON DELETE CASCADE,
  auth_key TEXT NOT NULL UNIQUE
) STRICT;
CREATE TABLE IF NOT EXISTS registrations(
  serial TEXT NOT NULL REFERENCES devices ON DELETE CASCADE,
  user_id TEXT NOT NULL REFERENCES accounts ON DELETE CASCADE,
  PRIMARY KEY(serial, user_id)
) STRICT;
)sql";

// The columns of an account behind its user id, in the order in which BindAccount and ReadAccount
// take them.
std::string AccountColumns() {
  std::string columns;
  for (const AccountText& text : kAccountTexts) columns += std::string(text.name) + ",";
  for (const AccountFlag& flag : kAccountFlags) columns += std::string(flag.name) + ",";
  return columns + "critical_version_list,report_cron_timestring";
}

std::string Placeholders() {
  std::string marks;
  for (std::size_t i = 0; i < kAccountTexts.size() + kAccountFlags.size() + 1; ++i) marks += "?,";
  return marks + "?";
}

std::string VersionsToText(const std::map<std::string, bool>& versions) {
  Json::Value list(Json::objectValue);
  for (const auto& [name, critical] : versions) list[name] = critical;
  return ToCompactText(list);
}

std::map<std::string, bool> VersionsFromText(const std::string& text) {
  std::map<std::string, bool> versions;
  const std::optional<Json::Value> list = ParseJson(text);
  if (!list || !list->isObject()) return versions;
  for (const std::string& name : list->getMemberNames()) {
    versions[name] = (*list)[name] == Json::Value(true);
  }
  return versions;
}

void BindAccount(Statement& statement, const Account& account) {
  for (const AccountText& text : kAccountTexts) statement.Bind(account.*text.member);
  for (const AccountFlag& flag : kAccountFlags) statement.Bind(account.*flag.member);
  statement.Bind(VersionsToText(account.critical_version_list));
  statement.Bind(account.report_cron_timestring);
}

Account ReadAccount(Statement& row) {
  Account account;
  account.user_id = row.Text();
  for (const AccountText& text : kAccountTexts) account.*text.member = row.Text();
  for (const AccountFlag& flag : kAccountFlags) account.*flag.member = row.Flag();
  account.critical_version_list = VersionsFromText(row.Text());
  account.report_cron_timestring = row.OptionalText();
  return account;
}

std::string SelectAccounts(const std::string& rest) {
  return "SELECT user_id," + AccountColumns() + " FROM accounts " + rest;
}

std::optional<Account> FindOneAccount(Database& database, const std::string& condition,
                                      const std::string& value) {
  Statement select(database, SelectAccounts(condition));
  select.Bind(value);
  if (!select.Next()) return std::nullopt;
  return ReadAccount(select);
}

constexpr char kSelectDevices[] =
    "SELECT serial, mac, api_key, api_key_expired, max_accounts, report_cron_timestring,"
    " reported_at, reported_timezone, schedule_given FROM devices ";

Device ReadDevice(Statement& row) {
  Device device;
  device.serial = row.Text();
  device.mac = row.Text();
  device.api_key = row.OptionalText();
  device.api_key_expired = row.Flag();
  device.max_accounts = row.Number();
  device.report_cron_timestring = row.OptionalText();
  device.reported_at = row.Number();
  device.reported_timezone = row.Text();
  device.schedule_given = row.OptionalText();
  return device;
}

std::optional<Link> FindOneLink(Database& database, const std::string& condition,
                                const std::string& value) {
  Statement select(database, "SELECT serial, user_id, auth_key FROM links WHERE " + condition);
  select.Bind(value);
  if (!select.Next()) return std::nullopt;
  Link link;
  link.serial = select.Text();
  link.user_id = select.Text();
  link.auth_key = select.Text();
  return link;
}

}  // namespace

Store::Store(Database& database) : database_(database) { database_.Execute(kSchema); }

bool Store::AddAccount(Account& account, const std::string& password) {
  if (account.user_id.empty()) account.user_id = RandomId();
  Statement insert(database_, "INSERT INTO accounts(user_id,password_hash," + AccountColumns() +
                                  ") VALUES(?,?," + Placeholders() + ") ON CONFLICT DO NOTHING");
  insert.Bind(account.user_id).Bind(HashPassword(password));
  BindAccount(insert, account);
  return insert.Run() == 1;
}

bool Store::UpdateAccount(const Account& account) {
  Statement update(database_, "UPDATE OR IGNORE accounts SET (" + AccountColumns() + ") = (" +
                                  Placeholders() + ") WHERE user_id = ?");
  BindAccount(update, account);
  update.Bind(account.user_id);
  return update.Run() == 1;
}

void Store::SetPassword(const std::string& user_id, const std::string& password) {
  Statement update(database_, "UPDATE accounts SET password_hash = ? WHERE user_id = ?");
  update.Bind(HashPassword(password)).Bind(user_id).Run();
}

bool Store::PasswordFits(const std::string& user_id, const std::string& password) {
  Statement select(database_, "SELECT password_hash FROM accounts WHERE user_id = ?");
  select.Bind(user_id);
  return select.Next() && devcloud::PasswordFits(password, select.Text());
}

bool Store::RemoveAccount(const std::string& user_id) {
  return Statement(database_, "DELETE FROM accounts WHERE user_id = ?").Bind(user_id).Run() == 1;
}

std::optional<Account> Store::FindAccount(const std::string& user_id) {
  return FindOneAccount(database_, "WHERE user_id = ?", user_id);
}

std::optional<Account> Store::FindAccountByEmail(const std::string& email) {
  return FindOneAccount(database_, "WHERE email = ?", email);
}

std::vector<Account> Store::Accounts() {
  std::vector<Account> accounts;
  Statement select(database_, SelectAccounts("ORDER BY email"));
  while (select.Next()) accounts.push_back(ReadAccount(select));
  return accounts;
}

void Store::PutDevice(const Device& device) {
  Statement put(database_,
                "INSERT INTO devices(serial, mac, api_key, api_key_expired, max_accounts,"
                " report_cron_timestring, reported_at, reported_timezone, schedule_given)"
                " VALUES(?,?,?,?,?,?,?,?,?) ON CONFLICT(serial) DO UPDATE SET mac = excluded.mac,"
                " api_key = excluded.api_key, api_key_expired = excluded.api_key_expired,"
                " max_accounts = excluded.max_accounts,"
                " report_cron_timestring = excluded.report_cron_timestring,"
                " reported_at = excluded.reported_at,"
                " reported_timezone = excluded.reported_timezone,"
                " schedule_given = excluded.schedule_given");
  put.Bind(device.serial).Bind(device.mac).Bind(device.api_key).Bind(device.api_key_expired);
  put.Bind(device.max_accounts).Bind(device.report_cron_timestring).Bind(device.reported_at);
  put.Bind(device.reported_timezone).Bind(device.schedule_given).Run();
}

bool Store::RemoveDevice(const std::string& serial) {
  return Statement(database_, "DELETE FROM devices WHERE serial = ?").Bind(serial).Run() == 1;
}

std::optional<Device> Store::FindDevice(const std::string& serial) {
  Statement select(database_, std::string(kSelectDevices) + "WHERE serial = ?");
  select.Bind(serial);
  if (!select.Next()) return std::nullopt;
  return ReadDevice(select);
}

std::vector<Device> Store::Devices() {
  std::vector<Device> devices;
  Statement select(database_, std::string(kSelectDevices) + "ORDER BY serial");
  while (select.Next()) devices.push_back(ReadDevice(select));
  return devices;
}

bool Store::RegisterWithDevice(const Device& device, const std::string& user_id) {
  Statement insert(database_,
                   "INSERT INTO registrations(serial, user_id) SELECT ?1, ?2"
                   " WHERE (SELECT count(*) FROM registrations WHERE serial = ?1) < ?3"
                   " ON CONFLICT DO NOTHING");
  insert.Bind(device.serial).Bind(user_id).Bind(device.max_accounts).Run();
  Statement known(database_, "SELECT 1 FROM registrations WHERE serial = ? AND user_id = ?");
  return known.Bind(device.serial).Bind(user_id).Next();
}

std::optional<Link> Store::LinkDevice(const std::string& serial, const std::string& user_id) {
  Transaction transaction(database_);
  const std::optional<Device> device = FindDevice(serial);
  if (!device || !RegisterWithDevice(*device, user_id)) return std::nullopt;
  std::optional<Link> link = FindLink(serial);
  if (!link || link->user_id != user_id) {
    link = Link{serial, user_id, RandomToken()};
    Statement put(database_,
                  "INSERT OR REPLACE INTO links(serial, user_id, auth_key) VALUES(?,?,?)");
    put.Bind(link->serial).Bind(link->user_id).Bind(link->auth_key).Run();
  }
  transaction.Commit();
  return link;
}

bool Store::Unlink(const std::string& serial) {
  return Statement(database_, "DELETE FROM links WHERE serial = ?").Bind(serial).Run() == 1;
}

std::optional<Link> Store::FindLink(const std::string& serial) {
  return FindOneLink(database_, "serial = ?", serial);
}

std::optional<Link> Store::FindLinkByAuthKey(const std::string& auth_key) {
  return FindOneLink(database_, "auth_key = ?", auth_key);
}

}  // namespace devcloud
