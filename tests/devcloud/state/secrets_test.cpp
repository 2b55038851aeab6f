#include "devcloud/state/secrets.h"

#include <gtest/gtest.h>

namespace {

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
