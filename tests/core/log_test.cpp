#include "core/log.h"

#include <syslog.h>

#include <cerrno>
#include <limits>
#include <string>

#include "tests/support/platform_fixture.h"

namespace nodelink {
namespace {

using testing::ElementsAre;

constexpr LogSite kSite{"somewhere", 12};

class LogTest : public PlatformTest {};

TEST_F(LogTest, LineBeginsWithItsPlace) {
  LogError(kSite, "%s is %d", "six", 6);
  EXPECT_THAT(LogWithLines(), ElementsAre("somewhere:12 six is 6"));
}

TEST_F(LogTest, ErrorsHaveTheUsualFacilityAndPriorityError) {
  LogError(kSite, "failed");
  EXPECT_THAT(LogWithPriorities(), ElementsAre("user.err somewhere failed"));
}

TEST_F(LogTest, AnotherPriorityMayNameAFacility) {
  LogAt(LOG_AUTH | LOG_INFO, kSite, "seen");
  LogAt(LOG_WARNING, kSite, "so so");
  EXPECT_THAT(LogWithPriorities(),
              ElementsAre("auth.info somewhere seen", "user.warning somewhere so so"));
}

TEST_F(LogTest, ValuesAreNoFormats) {
  LogError(kSite, "[%s]", "%s %n 100%");
  EXPECT_THAT(Log(), ElementsAre("somewhere [%s %n 100%]"));
}

TEST_F(LogTest, ErrnoIsKept) {
  errno = ENOENT;
  LogError(kSite, "failed");
  EXPECT_EQ(errno, ENOENT);
}

TEST_F(LogTest, LongTextsAreLoggedWhole) {
  const std::string text(50'000, 'x');
  LogError(kSite, "%s", text.c_str());
  EXPECT_THAT(Log(), ElementsAre("somewhere " + text));
}

// A larger datagram would be dropped, and the line with it.
TEST_F(LogTest, TextsThatTheSystemLogWouldDropAreCut) {
  LogError(kSite, "resp=%s", std::string(1'000'000, 'x').c_str());
  EXPECT_THAT(Log(), ElementsAre("somewhere resp=" + std::string(128 * 1024 - 5, 'x')));
}

TEST_F(LogTest, PlatformErrorIsATriple) {
  platform().SetFailureTriple({0x1A, "szhash.c", std::numeric_limits<int>::max()});
  platform().SetError();
  LogError(kSite, "err=[0x%04X %s:%d]", PLATFORM_ERROR_TRIPLE);
  EXPECT_THAT(Log(), ElementsAre("somewhere err=[0x001A szhash.c:2147483647]"));
}

TEST_F(LogTest, HereIsTheFileAndLineOfTheCaller) {
  const LogSite site = Here();
  EXPECT_EQ(site.file, "log_test");
  EXPECT_EQ(site.line, __LINE__ - 2);
}

TEST_F(LogTest, SourceNameIsTheBaseNameWithoutExtension) {
  EXPECT_EQ(SourceName("/build/src/account/user.cpp"), "user");
  EXPECT_EQ(SourceName("user.cpp"), "user");
  EXPECT_EQ(SourceName("user"), "user");
}

}  // namespace
}  // namespace nodelink
