// What a request for tokens was made on behalf of.
#pragma once

#include <optional>
#include <string>

#include "account/link_lock.h"

namespace nodelink {

// Tokens are stored only while the record still names the link, and only in the place of the tokens
// that were stored when they were asked for: those of another exchange are newer.
struct TokenRequest {
  std::optional<LinkIdentity> link;  // nothing when the record could not be read
  std::string refresh_token;         // the stored one; empty when there was none
};

}  // namespace nodelink
