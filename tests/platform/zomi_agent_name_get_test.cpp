#include "platform/zomi_agent_name_get.h"

#include <array>
#include <cstddef>

#include "core/error_code.h"
#include "tests/support/platform_fixture.h"

namespace {

using nodelink::DeviceApiUserAgentGet;
using nodelink::LastErrorCode;
using nodelink::SetLastErrorCode;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::uint32_t kUntouchedCode = 77;

class UserAgentTest : public PlatformTest {
 protected:
  UserAgentTest() { SetLastErrorCode(kUntouchedCode); }

  int Get() { return DeviceApiUserAgentGet(buffer_.data(), static_cast<int>(buffer_.size())); }

  std::array<char, 64> buffer_{"what was here"};
};

TEST_F(UserAgentTest, IsThePlatformsTextForTheProductZomi) {
  EXPECT_EQ(Get(), 0);
  EXPECT_STREQ(buffer_.data(), "zomi HOS/7.2.1 (NX220)");
  EXPECT_THAT(platform().calls(),
              ElementsAre(fake_hos::Call{"KLIBHsinfoUserAgentGet", {"zomi", "64"}}));
  EXPECT_EQ(LastErrorCode(), kUntouchedCode);
  EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(UserAgentTest, AFailureOfThePlatformIsLoggedAndNoFailure) {
  platform().SetFailureTriple({0x4B2, "userinfo.c", 310});
  platform().FailNext("KLIBHsinfoUserAgentGet");
  EXPECT_EQ(Get(), 0);
  EXPECT_STREQ(buffer_.data(), "what was here");
  EXPECT_EQ(LastErrorCode(), kUntouchedCode);
  EXPECT_THAT(LogWithLines(), ElementsAre("zomi_agent_name_get:17 KLIBHsinfoUserAgentGet failed, "
                                          "kivoerr=[0x04B2 userinfo.c:310]"));
}

TEST_F(UserAgentTest, ANullBufferIsAWrongParameter) {
  EXPECT_EQ(DeviceApiUserAgentGet(nullptr, 64), -1);
  EXPECT_EQ(LastErrorCode(), nodelink::kWrongParameters);
  EXPECT_THAT(platform().calls(), IsEmpty());
}

class UserAgentSizeTest : public UserAgentTest, public testing::WithParamInterface<int> {};

TEST_P(UserAgentSizeTest, ASizeBelowOneIsAWrongParameter) {
  EXPECT_EQ(DeviceApiUserAgentGet(buffer_.data(), GetParam()), -1);
  EXPECT_EQ(LastErrorCode(), nodelink::kWrongParameters);
  EXPECT_THAT(platform().calls(), IsEmpty());
  EXPECT_STREQ(buffer_.data(), "what was here");
}

INSTANTIATE_TEST_SUITE_P(All, UserAgentSizeTest, testing::Values(0, -1, -2147483647 - 1));

}  // namespace
