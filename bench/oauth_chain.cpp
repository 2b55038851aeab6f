// The access token with all that it takes: a renewal when it has expired; when that is refused, a
// grant by the auth key, the exchange of its code, and the token read again.
#include <cstdio>

#include "core/zomi_exception.h"
#include "pkce/account_pkce_service.h"

int main() {
  try {
    return nodelink::AccountPkceServiceImpl().GetAccessTokenWithRescue().empty() ? 1 : 0;
  } catch (const nodelink::ZomiException& failure) {
    std::fprintf(stderr, "oauth_chain: %s\n", failure.what());
    return 1;
  }
}
