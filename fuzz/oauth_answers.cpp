// Answers to the OAuth flows. Input: the flow ("l" login, "g" grant, "x" exchange, "o" logout, any
// other: token with rescue), then up to four answers (answers.h).
#include "fuzz/answers.h"
#include "fuzz/property.h"
#include "pkce/account_pkce_service.h"
#include "tests/fake_hos/fake_hos.h"

namespace {

using nodelink::AccessToken;
using nodelink::AccountPkceServiceImpl;

void Login(AccountPkceServiceImpl& service) {
  const bool success = fuzz::Succeeds([&] { service.Login("code", "verifier", "/back"); });
  fuzz::Check(success || fuzz::IsRecordOldOrGone(), "a failed login leaves no half account");
}

void Logout(AccountPkceServiceImpl& service) {
  const bool success = fuzz::Succeeds([&] { service.Logout(AccessToken::kInclude); });
  fuzz::Check(fuzz::IsRecordOldOrGone(), "a logout removes the account or leaves it");
  fuzz::Check(!success || fuzz::Record().empty(), "after a good logout it is gone");
}

void Exchange(AccountPkceServiceImpl& service) {
  Json::Value identity;
  if (!fuzz::Succeeds([&] { identity = service.ExchangeAuthKey("token"); })) return;
  fuzz::Check(identity.isObject() && identity.isMember("user_id") && identity.isMember("auth_key"),
              "an exchange gives both members");
}

void Grant(AccountPkceServiceImpl& service) {
  const bool success = fuzz::Succeeds([&] { service.GrantByAuthKey(); });
  fuzz::Check(success == (fuzz::Tokens() != fuzz::kFirstTokens), "a grant stores tokens, or fails");
}

void Token(AccountPkceServiceImpl& service) {
  (void)fuzz::Succeeds([&] { (void)service.GetAccessTokenWithRescue(); });
  fuzz::Check(fuzz::IsRecordOldOrGone(), "a renewal does not write the record");
}

void Run(const std::string& flow, AccountPkceServiceImpl& service) {
  switch (flow.empty() ? '\0' : flow.front()) {
    case 'l': return Login(service);
    case 'g': return Grant(service);
    case 'x': return Exchange(service);
    case 'o': return Logout(service);
    default: return Token(service);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto parts = fuzz::Parts(data, size, 5);
  fuzz::MakeDevice();
  fuzz::SetAnswers({parts.begin() + 1, parts.end()});
  AccountPkceServiceImpl service;
  Run(parts[0], service);
  fuzz::Check(fuzz::AreTokensWhole(), "a token file is the old one or whole");
  return 0;
}
