// The token files of all clients (pkce/pkce_client.h), as files.
#pragma once

#include <string>
#include <vector>

#include "account/link_lock.h"

namespace nodelink {

// While it lives, no client has tokens: for a login to another account, beside whose record the
// former account's tokens must never be found. They come back unless Drop() is called; what a
// killed process left aside is removed as any temporary file is.
class TokensSetAside {
 public:
  explicit TokensSetAside(const LinkLock& lock);
  TokensSetAside(const TokensSetAside&) = delete;
  TokensSetAside& operator=(const TokensSetAside&) = delete;
  ~TokensSetAside();

  // Removes them for good.
  void Drop();

 private:
  std::vector<std::string> names_;
};

// Removes the temporary files that killed writers left of the record and of token files: they hold
// keys as those do.
void RemoveAccountLeftovers(const LinkLock& lock);

}  // namespace nodelink
