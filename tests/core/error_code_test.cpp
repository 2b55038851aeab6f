#include "core/error_code.h"

#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "tests/support/platform_fixture.h"
#include "tests/support/test_name.h"

namespace nodelink {
namespace {

// Read before any test has run.
const std::uint32_t code_at_start = LastErrorCode();

class ErrorCodeTest : public PlatformTest {
 protected:
  void SetUp() override { SetLastErrorCode(kSuccess); }
};

TEST_F(ErrorCodeTest, NoErrorIsStoredAtStart) { EXPECT_EQ(code_at_start, 0U); }

TEST_F(ErrorCodeTest, StoredCodeIsReadBack) {
  for (const std::uint32_t code : {0U, 22U, std::numeric_limits<std::uint32_t>::max()}) {
    SetLastErrorCode(code);
    EXPECT_EQ(LastErrorCode(), code);
  }
}

struct CodeText {
  std::uint32_t code;
  const char* text;
};

void PrintTo(const CodeText& row, std::ostream* out) { *out << row.code; }

class ErrorCodeToTextTest : public testing::TestWithParam<CodeText> {};

TEST_P(ErrorCodeToTextTest, GivesTheTextOfTheCode) {
  EXPECT_STREQ(ErrorCodeToText(GetParam().code), GetParam().text);
}

INSTANTIATE_TEST_SUITE_P(CodesWithTextsOfTheirOwn, ErrorCodeToTextTest,
                         testing::Values(CodeText{0, "Success"}, CodeText{1, "Wrong parameters"},
                                         CodeText{2, "Wrong JSON format"},
                                         CodeText{3, "Failed to get zomi account"},
                                         CodeText{4, "Failed to send the request"},
                                         CodeText{5, "Failed to get the response"},
                                         CodeText{7, "Failed to get the payment config (url)"},
                                         CodeText{14, "Failed to auth"}));

std::vector<CodeText> SystemErrors() {
  std::vector<CodeText> rows;
  for (const std::uint32_t code : {6U, 8U, 9U, 13U, 15U, 16U, 17U, 18U, 19U, 20U, 21U, 22U, 23U,
                                   24U, 25U, 26U, 27U, 28U, 0xFFFFFFFFU}) {
    rows.push_back({code, "System error"});
  }
  return rows;
}

INSTANTIATE_TEST_SUITE_P(AllOthers, ErrorCodeToTextTest, testing::ValuesIn(SystemErrors()));

struct WordCode {
  const char* word;
  std::uint32_t code;
};

void PrintTo(const WordCode& row, std::ostream* out) {
  *out << (row.word == nullptr ? "null" : TestName(row.word));
}

class ServerStatusTest : public testing::TestWithParam<WordCode> {};

TEST_P(ServerStatusTest, GivesTheCodeOfTheWord) {
  EXPECT_EQ(ServerStatusToErrorCode(GetParam().word), GetParam().code);
}

TEST_P(ServerStatusTest, StoresTheCodeOfTheWord) {
  SetLastErrorCode(99);
  SetServerStatusError(GetParam().word);
  EXPECT_EQ(LastErrorCode(), GetParam().code);
}

INSTANTIATE_TEST_SUITE_P(Words, ServerStatusTest,
                         testing::Values(WordCode{"good", 0}, WordCode{"badparam", 1},
                                         WordCode{"badauth", 14}, WordCode{"badsys", 6},
                                         WordCode{"badnetwork", 15}, WordCode{"account_inused", 16},
                                         WordCode{"serial_exceed_max_account_register", 17},
                                         WordCode{"account_unverified", 18},
                                         WordCode{"account_userid", 0},
                                         WordCode{"account_not_found", 25},
                                         WordCode{"apikey_not_found", 26},
                                         WordCode{"apikey_expired", 27}));

INSTANTIATE_TEST_SUITE_P(WordsThatOnlyBeginLikeOne, ServerStatusTest,
                         testing::Values(WordCode{"goodbye", 0}, WordCode{"badparameter", 1},
                                         WordCode{"badauth\nbadsys", 14},
                                         WordCode{"account_inused_twice", 16},
                                         WordCode{"account_userid_12", 0}));

INSTANTIATE_TEST_SUITE_P(UnknownWords, ServerStatusTest,
                         testing::Values(WordCode{nullptr, 24}, WordCode{"", 24},
                                         WordCode{"goo", 24}, WordCode{"Good", 24},
                                         WordCode{" good", 24}, WordCode{"bad", 24},
                                         WordCode{"account_", 24}, WordCode{"\xff\xfe", 24}));

struct CloudCode {
  int cloud_error;
  std::uint32_t code;
};

void PrintTo(const CloudCode& row, std::ostream* out) { *out << row.cloud_error; }

class CloudServiceErrorTest : public PlatformTest, public testing::WithParamInterface<CloudCode> {};

TEST_P(CloudServiceErrorTest, GivesTheCodeOfTheLibrarysError) {
  platform().cloud.error_code = GetParam().cloud_error;
  EXPECT_EQ(CloudServiceErrorToCode(), GetParam().code);
  EXPECT_EQ(platform().call_count("KIVOCloudServiceGetErrorCode"), 1U);
}

INSTANTIATE_TEST_SUITE_P(Errors, CloudServiceErrorTest,
                         testing::Values(CloudCode{0, 0}, CloudCode{1, 15}, CloudCode{2, 24},
                                         CloudCode{-1, 24},
                                         CloudCode{std::numeric_limits<int>::max(), 24}));

}  // namespace
}  // namespace nodelink
