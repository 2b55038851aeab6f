// Authorization codes and tokens. Only their SHA-256 is kept; the texts exist once, in the answer
// that hands them out.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "devcloud/state/clients.h"
#include "devcloud/state/database.h"
#include "devcloud/state/wall_clock.h"

namespace devcloud {

// What a user has allowed a client.
struct Grant {
  std::string client_id = {};
  std::string user_id = {};
  std::string scope = {};
};

// What an authorization code stands for.
struct CodeGrant {
  Grant grant = {};
  std::string redirect_uri = {};
  std::string code_challenge = {};  // S256
};

// All tokens that descend from one authorization code.
struct Family {
  std::int64_t id = 0;
  Grant grant = {};
  std::int64_t created_at = 0;
  bool revoked = false;
};

enum class TokenKind { kAccess, kRefresh, kId };

// "access", "refresh" or "id".
[[nodiscard]] const char* ToName(TokenKind kind);

struct TokenInfo {
  std::int64_t id = 0;
  std::int64_t family_id = 0;
  TokenKind kind = TokenKind::kAccess;
  std::int64_t issued_at = 0;
  std::int64_t expires_at = 0;
  bool used = false;  // a refresh token that has been traded in
  bool revoked = false;
};

class TokenStore {
 public:
  static constexpr std::int64_t kCodeSeconds = 60;

  // `database` must outlive the store and hold the accounts' table already.
  TokenStore(Database& database, WallClock clock);

  [[nodiscard]] std::string IssueCode(const CodeGrant& grant);
  // The code's grant, once: from then on the code is used up. A code that comes a second time
  // revokes the tokens that it gave; it, an expired one and one never issued give nothing.
  [[nodiscard]] std::optional<CodeGrant> RedeemCode(const std::string& code);

  // A new family, which the code's second use would revoke.
  [[nodiscard]] Family StartFamily(const Grant& grant, const std::string& code);

  [[nodiscard]] std::string IssueToken(const Family& family, TokenKind kind,
                                       std::int64_t lifetime_seconds);
  // Remembers a token that was made elsewhere.
  void RecordToken(const Family& family, TokenKind kind, const std::string& token,
                   std::int64_t lifetime_seconds);

  // The family of a refresh token, once: from then on the token is used up. One that comes a second
  // time revokes its whole family; it and one that is expired, revoked or of another client give
  // nothing.
  [[nodiscard]] std::optional<Family> UseRefreshToken(const std::string& token,
                                                      const std::string& client_id);
  // The family of a token that is good at this moment.
  [[nodiscard]] std::optional<Family> FindByToken(const std::string& token, TokenKind kind);
  // The same for a token in any condition.
  [[nodiscard]] std::optional<Family> FindByAnyToken(const std::string& token, TokenKind kind);

  [[nodiscard]] std::vector<Family> Families();
  [[nodiscard]] std::vector<TokenInfo> Tokens();
  // Each false when there is no such thing.
  bool RevokeFamily(std::int64_t id);
  bool ExpireFamily(std::int64_t id);  // all its tokens
  bool RevokeToken(std::int64_t id);
  bool ExpireToken(std::int64_t id);

 private:
  struct Found;
  [[nodiscard]] std::optional<Found> Find(const std::string& token, TokenKind kind);
  [[nodiscard]] std::optional<Family> FindFamily(std::int64_t id);
  [[nodiscard]] bool IsGood(const TokenInfo& token) const;

  Database& database_;
  WallClock clock_;
};

}  // namespace devcloud
