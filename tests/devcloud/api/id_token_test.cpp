#include "devcloud/api/id_token.h"

#include <gmock/gmock.h>

#include "devcloud/http/certificates.h"
#include "devcloud/state/secrets.h"

namespace {

using testing::StartsWith;

TEST(IdTokenTest, IsAJwtInThreeParts) {
  Json::Value claims(Json::objectValue);
  claims["sub"] = "7";
  const std::string token = devcloud::SignIdToken(claims, devcloud::MakePrivateKey());
  EXPECT_THAT(token, StartsWith(devcloud::Base64Url(R"({"alg":"ES256","typ":"JWT"})") + "." +
                                devcloud::Base64Url(R"({"sub":"7"})") + "."));
  // 64 bytes of signature.
  EXPECT_EQ(token.size() - token.rfind('.') - 1, 86U);
  EXPECT_THROW((void)devcloud::SignIdToken(claims, "no key"), std::runtime_error);
}

}  // namespace
