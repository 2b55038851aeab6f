#include "devcloud/api/device_token.h"

#include <gtest/gtest.h>

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

}  // namespace
