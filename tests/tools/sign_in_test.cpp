#include "tools/sign_in.h"

#include <cstdint>

#include "core/error_code.h"
#include "core/zomi_exception.h"
#include "tests/support/fail_each_call.h"
#include "tests/support/platform_fixture.h"

namespace nodelink_login {
namespace {

class SignInTest : public PlatformTest {
 protected:
  // The code that an address with the query `query` brings back; the failure's code when none.
  static std::string CodeIn(const std::string& query) {
    try {
      return ReadCode("https://device.example/callback?" + query, {{"", ""}, "abc"});
    } catch (const nodelink::ZomiException& failure) {
      return std::to_string(failure.code());
    }
  }
};

TEST_F(SignInTest, EveryCharacterButTheUnreservedIsEscapedInTheAddress) {
  Json::Value config;
  config["auth_endpoint"] = "https://identity.example/authorize";
  config["client_id"] = "aZ09-._~ +&=%/:\xc3\xa4";
  EXPECT_EQ(SignInAddress(config, {{"challenge", "verifier"}, "state"}),
            "https://identity.example/authorize?response_type=code&client_id="
            "aZ09-._~%20%2B%26%3D%25%2F%3A%C3%A4&redirect_uri=&scope=&audience="
            "&code_challenge=challenge&code_challenge_method=S256&state=state");
}

TEST_F(SignInTest, TheCodeIsReadAsItWasMeant) {
  EXPECT_EQ(CodeIn("code=a%2Fb%20c+d%3d&state=abc"), "a/b c+d=");
  EXPECT_EQ(CodeIn("co%64e=x=y&state=abc#code=z"), "x=y");
  EXPECT_EQ(CodeIn("code=x&&flag&state=abc"), "x");
}

TEST_F(SignInTest, AnAddressWithoutACodeForThisSignInIsRefused) {
  const std::string wrong = std::to_string(nodelink::kWrongParameters);
  for (const char* query :
       {"", "code=x", "code=x&state=abd", "code=x&state=ABC", "state=abc", "code=&state=abc",
        "code&state=abc", "code=x#state=abc", "code=x&state=abc\n"}) {
    EXPECT_EQ(CodeIn(query), wrong) << query;
  }
  EXPECT_EQ(CodeIn("error=access_denied&state=abc"), std::to_string(nodelink::kAuthFailed));
}

TEST_F(SignInTest, WithoutAChallengeThereIsNone) {
  std::uint32_t code = 0;
  FailEachCall([] {},
               [&] {
                 try {
                   (void)BeginSignIn();
                 } catch (const nodelink::ZomiException& failure) {
                   code = failure.code();
                 }
               },
               [&] { EXPECT_EQ(code, nodelink::kSystemError); });
}

}  // namespace
}  // namespace nodelink_login
