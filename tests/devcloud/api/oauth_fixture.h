// A cloud with what programs and browsers send it on their way to tokens.
#pragma once

#include <string>

#include "devcloud/http/form.h"
#include "tests/devcloud/cloud_fixture.h"

namespace devcloud_test {

inline constexpr char kAuthorize[] = "/oauth2/v1/authorize";
inline constexpr char kToken[] = "/oauth2/v1/token";
inline constexpr char kEndSession[] = "/oauth2/v1/end_session";
inline constexpr char kExchange[] = "/oauth2/api/v1/device/core/authkey/exchange";
inline constexpr char kGrant[] = "/migration/api/v1/device/core/authorization_code/grant";
inline constexpr char kLogout[] = "/device/api/logout";
inline constexpr char kVerifier[] = "dBjftJeZ4CVP-mB92K27uhbUJU1p1r_wW1gFWFOEjXk";
inline constexpr char kChallenge[] = "E9Melhoa2OwvFrEMTJguCHaoeK1t8URWbuGJSstw-cM";
inline constexpr char kCallback[] = "https://localhost/oauth2/v1/login_callback";
inline constexpr char kScope[] = "openid offline_access sn:NL00000001A mac:02:00:5e:10:00:01";
inline constexpr char kClientHeader[] = "X-Client-ID: hos-device-login";

inline Pairs Changed(Pairs form, const std::string& name, const std::string& value) {
  for (auto& [key, old] : form) {
    if (key == name) old = value;
  }
  return form;
}

inline Pairs Joined(Pairs first, const Pairs& second) {
  first.insert(first.end(), second.begin(), second.end());
  return first;
}

// The value of a hidden input or of a query parameter.
inline std::string Between(const std::string& text, const std::string& start,
                           const std::string& end) {
  const std::size_t found = text.find(start);
  if (found == std::string::npos) return {};
  const std::size_t from = found + start.size();
  return text.substr(from, text.find(end, from) - from);
}

class OauthTest : public CloudTest {
 protected:
  static Pairs AuthorizationForm() {
    return {{"response_type", "code"},
            {"client_id", "hos-device-login"},
            {"redirect_uri", kCallback},
            {"scope", kScope},
            {"audience", "https://localhost/device"},
            {"code_challenge", kChallenge},
            {"code_challenge_method", "S256"},
            {"state", "s t&\"<"}};
  }

  ClientAnswer OpenSignIn(const Pairs& form) {
    return client_.Send({.url = devcloud::AppendQuery(Url(kAuthorize), form)});
  }

  // What a browser sends after a person has filled in the form.
  ClientAnswer SignIn(const Pairs& form, const std::string& password = kPassword,
                      const std::string& choice = "sign_in") {
    const ClientAnswer page = OpenSignIn(form);
    const Pairs filled = Joined(form, {{"csrf", Between(page.body, "csrf\" value=\"", "\"")},
                                       {"email", kEmail},
                                       {"password", password},
                                       {"choice", choice}});
    return PostForm(kAuthorize, filled, {"Cookie: " + Between(page.head, "Set-Cookie: ", ";")});
  }

  std::string GetCode() {
    return Between(SignIn(AuthorizationForm()).Header("Location"), "?code=", "&");
  }

  static Pairs CodeForm(const std::string& code) {
    return {{"grant_type", "authorization_code"},
            {"client_id", "hos-device-login"},
            {"redirect_uri", kCallback},
            {"code", code},
            {"code_verifier", kVerifier}};
  }

  static Pairs RefreshForm(const std::string& token) {
    return {{"grant_type", "refresh_token"},
            {"refresh_token", token},
            {"client_id", "hos-device-login"}};
  }

  ClientAnswer PostToken(const Pairs& form) { return PostForm(kToken, form, {kClientHeader}); }

  Json::Value GetTokens() { return Parse(PostToken(CodeForm(GetCode()))); }

  // Empty when the form is answered with tokens.
  std::string TokenError(const Pairs& form) {
    const ClientAnswer answer = PostToken(form);
    EXPECT_EQ(answer.status, Parse(answer).isMember("error") ? 400 : 200);
    return Parse(answer)["error"].asString();
  }

  ClientAnswer Exchange(const std::string& token) {
    return client_.Send({.url = Url(kExchange),
                         .body = "",
                         .headers = {"Authorization: Bearer " + token, "Content-Type:"}});
  }

  Pairs GrantForm() const {
    return {{"client_id", "hos-device-login"}, {"redirect_url", kCallback},
            {"state", "1700000000"},           {"code_challenge", kChallenge},
            {"auth_key", link_.auth_key},      {"scopes[]", "openid"},
            {"scopes[]", "sn:NL00000001A"},    {"scopes[]", "mac:02:00:5e:10:00:01"}};
  }
};

}  // namespace devcloud_test
