// The token file. Input: its text. No server answers, so nothing can be renewed.
#include "core/json.h"
#include "core/json_value.h"
#include "fuzz/answers.h"
#include "fuzz/property.h"
#include "pkce/pkce_client.h"

namespace {

void CheckToken(const std::string& text, const std::string& token) {
  Json::Value tokens;
  fuzz::Check(nodelink::json::fromString(text, tokens), "only JSON holds tokens");
  fuzz::Check(nodelink::json::TextMember(tokens, "access_token") == token,
              "the token that is given is the one that is stored");
  fuzz::Check(fuzz::RequestCount() == 0, "a valid token asks no server");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(data, data + size);
  fuzz::MakeDevice(text);
  fuzz::SetAnswers({""});
  const nodelink::PkceClient client("login");
  std::string token;
  if (fuzz::Succeeds([&] { token = nodelink::PkceClient("login").GetAccessToken(); })) {
    CheckToken(text, token);
  }
  fuzz::Check(client.HasToken() && fuzz::Tokens() == text, "a file that is read stays as it is");
  return 0;
}
