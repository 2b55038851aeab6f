#include "core/include/internal/string_utils.h"

#include <string>
#include <utility>

#include "tests/support/platform_fixture.h"

namespace nodelink {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class StringUtilsTest : public PlatformTest {};

TEST_F(StringUtilsTest, FormatsAText) {
  EXPECT_EQ(FormatString("/tmp/account_%s.lock", "login_get_token"),
            "/tmp/account_login_get_token.lock");
}

TEST_F(StringUtilsTest, FormatsANumberAndAText) {
  const std::string answer = "denied";
  EXPECT_EQ(FormatString("Failed to renew token, reqcode=%d, reqmsg=%s", -7, answer),
            "Failed to renew token, reqcode=-7, reqmsg=denied");
}

TEST_F(StringUtilsTest, ResultLongerThanAnyBufferComesBackWhole) {
  const std::string value(3'000'000, 'v');
  EXPECT_EQ(FormatString("<%s>", value), "<" + value + ">");
}

TEST_F(StringUtilsTest, PercentSignsOfAValueAreCopied) {
  EXPECT_EQ(FormatString("a %s b", "100%s%n%d%%"), "a 100%s%n%d%% b");
}

TEST_F(StringUtilsTest, EmptyResultIsNoError) {
  EXPECT_EQ(FormatString("%s", ""), "");
  EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(StringUtilsTest, TextEndsAtANul) {
  EXPECT_EQ(FormatString("%s!", std::string("a\0b", 3)), "a!");
}

TEST_F(StringUtilsTest, FormattingErrorGivesTheEmptyTextAndALogLine) {
  EXPECT_EQ(FormatString("%2147483647d%d", 1, 2), "");
  EXPECT_THAT(LogWithLines(),
              ElementsAre("include/internal/string_utils:17 Failed to format: %2147483647d%d"));
  EXPECT_THAT(LogWithPriorities(), ElementsAre("user.err include/internal/string_utils Failed to "
                                               "format: %2147483647d%d"));
}

static_assert(noexcept(FormatString(std::declval<const std::string&>(), 1)));

}  // namespace
}  // namespace nodelink
