#include "core/zomi_exception.h"

#include <algorithm>
#include <string>

#include "core/error_code.h"
#include "tests/support/platform_fixture.h"

namespace nodelink {
namespace {

class ZomiExceptionTest : public PlatformTest {
 protected:
  void SetUp() override {
    hooks().backtrace = [](void**, int) { return 0; };
  }
};

TEST_F(ZomiExceptionTest, CarriesCodeAndMessage) {
  const ZomiException failure(22, "Failed to lock file: /tmp/account_x.lock");
  EXPECT_EQ(failure.code(), 22U);
  EXPECT_STREQ(failure.what(), "Failed to lock file: /tmp/account_x.lock [code=22]\n- empty\n\n");
}

TEST_F(ZomiExceptionTest, MessageAloneHasTheGenericCode) {
  const ZomiException failure(std::string("no luck"));
  EXPECT_EQ(failure.code(), 24U);
  EXPECT_STREQ(failure.what(), "no luck [code=24]\n- empty\n\n");
}

TEST_F(ZomiExceptionTest, CodeAloneHasTheTextOfTheCode) {
  const ZomiException failure(kWrongJsonFormat);
  EXPECT_EQ(failure.code(), 2U);
  EXPECT_STREQ(failure.what(), "Wrong JSON format [code=2]\n- empty\n\n");
}

TEST_F(ZomiExceptionTest, CopyNestsTheText) {
  const ZomiException inner(5, "inner");
  const ZomiException outer(inner);  // NOLINT(performance-unnecessary-copy-initialization)
  EXPECT_EQ(outer.code(), 5U);
  EXPECT_STREQ(outer.what(), "inner [code=5]\n- empty\n\n [code=5]\n- empty\n\n");
}

TEST_F(ZomiExceptionTest, EveryFrameStandsOnALineOfItsOwn) {
  interpose::Reset();
  const std::string text = ZomiException(6).what();
  EXPECT_THAT(text, testing::StartsWith("System error [code=6]\n- "));
  EXPECT_THAT(text, testing::EndsWith("\n\n"));
  EXPECT_GE(std::count(text.begin(), text.end(), '\n'), 3);
}

TEST_F(ZomiExceptionTest, StackIsAtMostSixteenFramesDeep) {
  int depth = 0;
  hooks().backtrace = [&depth](void**, int size) {
    depth = size;
    return 0;
  };
  const ZomiException failure(6);
  EXPECT_EQ(depth, 16);
}

TEST_F(ZomiExceptionTest, EmptyStackLeavesOneEmptyLine) {
  hooks().backtrace = [](void**, int) { return 1; };
  EXPECT_STREQ(ZomiException(1).what(), "Wrong parameters [code=1]\n\n");
}

TEST_F(ZomiExceptionTest, LargestCodePrintsAsASignedNumber) {
  const ZomiException failure(0xFFFFFFFFU, "x");
  EXPECT_EQ(failure.code(), 0xFFFFFFFFU);
  EXPECT_STREQ(failure.what(), "x [code=-1]\n- empty\n\n");
}

TEST_F(ZomiExceptionTest, HostileMessagesArePrintedAsTheyAre) {
  const std::string message = "50%s%n\n[code=0]" + std::string(100'000, 'x');
  EXPECT_EQ(ZomiException(3, message).what(), message + " [code=3]\n- empty\n\n");
}

TEST_F(ZomiExceptionTest, IsCaughtAsAStandardException) {
  try {
    throw ZomiException(7);
  } catch (const std::exception& failure) {
    EXPECT_THAT(failure.what(),
                testing::StartsWith("Failed to get the payment config (url) [code=7]\n"));
  }
}

}  // namespace
}  // namespace nodelink
