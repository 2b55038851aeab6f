#include "devcloud/state/token_store.h"

#include <utility>

#include "devcloud/state/secrets.h"

namespace devcloud {
namespace {

constexpr char kSchema[] = R"sql(
CREATE TABLE IF NOT EXISTS families(
  id INTEGER PRIMARY KEY AUTOINCREMENT,
  client_id TEXT NOT NULL,
  user_id TEXT NOT NULL REFERENCES accounts ON DELETE CASCADE,
  scope TEXT NOT NULL,
  created_at INTEGER NOT NULL,
  revoked INTEGER NOT NULL
) STRICT;
CREATE TABLE IF NOT EXISTS codes(
  hash TEXT PRIMARY KEY,
  client_id TEXT NOT NULL,
  user_id TEXT NOT NULL REFERENCES accounts ON DELETE CASCADE,
  scope TEXT NOT NULL,
  redirect_uri TEXT NOT NULL,
  code_challenge TEXT NOT NULL,
  expires_at INTEGER NOT NULL,
  used INTEGER NOT NULL,
  family_id INTEGER REFERENCES families ON DELETE CASCADE
) STRICT;
CREATE TABLE IF NOT EXISTS tokens(
  id INTEGER PRIMARY KEY AUTOINCREMENT,
  hash TEXT NOT NULL UNIQUE,
  family_id INTEGER NOT NULL REFERENCES families ON DELETE CASCADE,
  kind INTEGER NOT NULL,
  issued_at INTEGER NOT NULL,
  expires_at INTEGER NOT NULL,
  used INTEGER NOT NULL,
  revoked INTEGER NOT NULL
) STRICT;
)sql";

constexpr char kSelectFamilies[] =
    "SELECT id, client_id, user_id, scope, created_at, revoked FROM families ";
constexpr char kSelectTokens[] =
    "SELECT id, family_id, kind, issued_at, expires_at, used, revoked FROM tokens ";

Grant ReadGrant(Statement& row) {
  Grant grant;
  grant.client_id = row.Text();
  grant.user_id = row.Text();
  grant.scope = row.Text();
  return grant;
}

Family ReadFamily(Statement& row) {
  Family family;
  family.id = row.Number();
  family.grant = ReadGrant(row);
  family.created_at = row.Number();
  family.revoked = row.Flag();
  return family;
}

TokenInfo ReadToken(Statement& row) {
  TokenInfo token;
  token.id = row.Number();
  token.family_id = row.Number();
  token.kind = static_cast<TokenKind>(row.Number());
  token.issued_at = row.Number();
  token.expires_at = row.Number();
  token.used = row.Flag();
  token.revoked = row.Flag();
  return token;
}

}  // namespace

const char* ToName(TokenKind kind) {
  switch (kind) {
    case TokenKind::kAccess: return "access";
    case TokenKind::kRefresh: return "refresh";
    case TokenKind::kId: return "id";
  }
  return "";
}

struct TokenStore::Found {
  TokenInfo token;
  Family family;
};

TokenStore::TokenStore(Database& database, WallClock clock)
    : database_(database), clock_(std::move(clock)) {
  database_.Execute(kSchema);
}

std::string TokenStore::IssueCode(const CodeGrant& grant) {
  std::string code = RandomToken();
  Statement insert(database_,
                   "INSERT INTO codes(hash, client_id, user_id, scope, redirect_uri,"
                   " code_challenge, expires_at, used) VALUES(?,?,?,?,?,?,?,0)");
  insert.Bind(Sha256Hex(code)).Bind(grant.grant.client_id).Bind(grant.grant.user_id);
  insert.Bind(grant.grant.scope).Bind(grant.redirect_uri).Bind(grant.code_challenge);
  insert.Bind(clock_() + kCodeSeconds).Run();
  return code;
}

std::optional<CodeGrant> TokenStore::RedeemCode(const std::string& code) {
  const std::string hash = Sha256Hex(code);
  Transaction transaction(database_);
  Statement revoke(database_,
                   "UPDATE families SET revoked = 1 WHERE id IN"
                   " (SELECT family_id FROM codes WHERE hash = ? AND used = 1)");
  revoke.Bind(hash).Run();
  Statement use(database_, "UPDATE codes SET used = 1 WHERE hash = ? AND used = 0");
  const bool first_use = use.Bind(hash).Run() == 1;
  std::optional<CodeGrant> grant;
  Statement select(database_,
                   "SELECT client_id, user_id, scope, redirect_uri, code_challenge FROM codes"
                   " WHERE hash = ? AND expires_at > ?");
  if (first_use && select.Bind(hash).Bind(clock_()).Next()) {
    grant.emplace();
    grant->grant = ReadGrant(select);
    grant->redirect_uri = select.Text();
    grant->code_challenge = select.Text();
  }
  transaction.Commit();
  return grant;
}

Family TokenStore::StartFamily(const Grant& grant, const std::string& code) {
  Transaction transaction(database_);
  Family family{.grant = grant, .created_at = clock_()};
  Statement insert(database_,
                   "INSERT INTO families(client_id, user_id, scope, created_at, revoked)"
                   " VALUES(?,?,?,?,0)");
  insert.Bind(grant.client_id).Bind(grant.user_id).Bind(grant.scope).Bind(family.created_at).Run();
  family.id = database_.LastInsertId();
  Statement(database_, "UPDATE codes SET family_id = ? WHERE hash = ?")
      .Bind(family.id)
      .Bind(Sha256Hex(code))
      .Run();
  transaction.Commit();
  return family;
}

std::string TokenStore::IssueToken(const Family& family, TokenKind kind,
                                   std::int64_t lifetime_seconds) {
  std::string token = RandomToken();
  RecordToken(family, kind, token, lifetime_seconds);
  return token;
}

void TokenStore::RecordToken(const Family& family, TokenKind kind, const std::string& token,
                             std::int64_t lifetime_seconds) {
  const std::int64_t now = clock_();
  Statement insert(database_,
                   "INSERT INTO tokens(hash, family_id, kind, issued_at, expires_at, used,"
                   " revoked) VALUES(?,?,?,?,?,0,0)");
  insert.Bind(Sha256Hex(token)).Bind(family.id).Bind(static_cast<int>(kind));
  insert.Bind(now).Bind(now + lifetime_seconds).Run();
}

std::optional<Family> TokenStore::FindFamily(std::int64_t id) {
  Statement select(database_, std::string(kSelectFamilies) + "WHERE id = ?");
  if (!select.Bind(id).Next()) return std::nullopt;
  return ReadFamily(select);
}

std::optional<TokenStore::Found> TokenStore::Find(const std::string& token, TokenKind kind) {
  Statement select(database_, std::string(kSelectTokens) + "WHERE hash = ? AND kind = ?");
  if (!select.Bind(Sha256Hex(token)).Bind(static_cast<int>(kind)).Next()) return std::nullopt;
  const TokenInfo found = ReadToken(select);
  const std::optional<Family> family = FindFamily(found.family_id);
  if (!family) return std::nullopt;
  return Found{found, *family};
}

bool TokenStore::IsGood(const TokenInfo& token) const {
  return !token.revoked && token.expires_at > clock_();
}

std::optional<Family> TokenStore::UseRefreshToken(const std::string& token,
                                                  const std::string& client_id) {
  Transaction transaction(database_);
  const std::optional<Found> found = Find(token, TokenKind::kRefresh);
  if (!found || found->family.grant.client_id != client_id) return std::nullopt;
  if (found->token.used) RevokeFamily(found->family.id);
  Statement(database_, "UPDATE tokens SET used = 1 WHERE id = ?").Bind(found->token.id).Run();
  transaction.Commit();
  const bool good = !found->token.used && IsGood(found->token) && !found->family.revoked;
  return good ? std::optional(found->family) : std::nullopt;
}

std::optional<Family> TokenStore::FindByToken(const std::string& token, TokenKind kind) {
  const std::optional<Found> found = Find(token, kind);
  const bool good = found && IsGood(found->token) && !found->family.revoked;
  return good ? std::optional(found->family) : std::nullopt;
}

std::optional<Family> TokenStore::FindByAnyToken(const std::string& token, TokenKind kind) {
  const std::optional<Found> found = Find(token, kind);
  return found ? std::optional(found->family) : std::nullopt;
}

std::vector<Family> TokenStore::Families() {
  std::vector<Family> families;
  Statement select(database_, std::string(kSelectFamilies) + "ORDER BY id");
  while (select.Next()) families.push_back(ReadFamily(select));
  return families;
}

std::vector<TokenInfo> TokenStore::Tokens() {
  std::vector<TokenInfo> tokens;
  Statement select(database_, std::string(kSelectTokens) + "ORDER BY id");
  while (select.Next()) tokens.push_back(ReadToken(select));
  return tokens;
}

bool TokenStore::RevokeFamily(std::int64_t id) {
  Statement update(database_, "UPDATE families SET revoked = 1 WHERE id = ?");
  return update.Bind(id).Run() == 1;
}

bool TokenStore::ExpireFamily(std::int64_t id) {
  Statement update(database_,
                   "UPDATE tokens SET expires_at = min(expires_at, ?) WHERE family_id = ?");
  return update.Bind(clock_()).Bind(id).Run() > 0;
}

bool TokenStore::RevokeToken(std::int64_t id) {
  return Statement(database_, "UPDATE tokens SET revoked = 1 WHERE id = ?").Bind(id).Run() == 1;
}

bool TokenStore::ExpireToken(std::int64_t id) {
  Statement update(database_, "UPDATE tokens SET expires_at = min(expires_at, ?) WHERE id = ?");
  return update.Bind(clock_()).Bind(id).Run() == 1;
}

}  // namespace devcloud
