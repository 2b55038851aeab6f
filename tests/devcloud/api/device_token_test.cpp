#include "devcloud/api/device_token.h"

#include <gtest/gtest.h>

#include "devcloud/state/secrets.h"

namespace {

using devcloud::DeviceToken;

// Made with md5sum in a shell loop.
TEST(DeviceTokenTest, MatchesAnIndependentProgram) {
  EXPECT_EQ(DeviceToken("NL00000028A", "", ""), "d45c86ef1537be6000c62f35c32139b1");  // 1 round
  EXPECT_EQ(DeviceToken("NL00000038A", "", ""), "d3a0915934ed3609f0ab2b2ea05b0eb8");  // 1 round
  EXPECT_EQ(DeviceToken("NL00000007A", "", ""), "a71cd42333964e34ad63a49b5544b249");  // 8 rounds
  EXPECT_EQ(DeviceToken("NL00000029A", "", ""), "ac7c7b71ae8bf2a92b5f6875020d85d7");  // 16 rounds
  EXPECT_EQ(DeviceToken("NL00000001A", "anna@example.org", "secret"),
            "b77eba86b72d37bc1827ad080d63fbf1");
}

TEST(DeviceTokenTest, JoinsItsInputsWithoutSeparator) {
  EXPECT_EQ(DeviceToken("NL1", "ab", "c"), DeviceToken("NL1", "a", "bc"));
  EXPECT_NE(DeviceToken("NL1", "", ""), DeviceToken("NL1", "a", ""));
}

TEST(SecretsTest, DigestsAreTheKnownOnes) {
  EXPECT_EQ(devcloud::Sha256Hex("abc"),
            "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  // RFC 7636, appendix B.
  EXPECT_EQ(devcloud::Base64Url(devcloud::Sha256("dBjftJeZ4CVP-mB92K27uhbUJU1p1r_wW1gFWFOEjXk")),
            "E9Melhoa2OwvFrEMTJguCHaoeK1t8URWbuGJSstw-cM");
  // RFC 4231, test case 2.
  EXPECT_EQ(devcloud::HmacHex("Jefe", "what do ya want for nothing?"),
            "5bdcc146bf60754e6a042426089575c75a003f089d2739839dec58b964ec3843");
}

TEST(SecretsTest, PasswordsFitTheirHashOnly) {
  const std::string hash = devcloud::HashPassword("secret");
  EXPECT_TRUE(devcloud::PasswordFits("secret", hash));
  EXPECT_FALSE(devcloud::PasswordFits("Secret", hash));
  EXPECT_FALSE(devcloud::PasswordFits("secret", "no hash"));
  EXPECT_NE(hash, devcloud::HashPassword("secret"));
}

TEST(SecretsTest, TokensAreUrlSafeAndNew) {
  const std::string token = devcloud::RandomToken();
  EXPECT_EQ(token.size(), 43U);
  EXPECT_EQ(
      token.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_"),
      std::string::npos);
  EXPECT_NE(token, devcloud::RandomToken());
}

}  // namespace
