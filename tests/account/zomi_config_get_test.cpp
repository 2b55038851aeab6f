#include "account/zomi_config_get.h"

#include <cerrno>
#include <filesystem>
#include <memory>
#include <string>

#include "account/account_files.h"
#include "tests/account/record_fixture.h"

namespace nodelink {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class ZomiConfigGetTest : public PlatformTest {
 protected:
  void SetUp() override { SetLastErrorCode(kSuccess); }

  std::string Id() const { return credentials_->zomi_id.data(); }
  std::string Password() const { return credentials_->zomi_pw.data(); }

  std::unique_ptr<LegacyCredentials> credentials_ = std::make_unique<LegacyCredentials>();
};

TEST_F(ZomiConfigGetTest, ReadsIdentifierAndPassword) {
  WriteRecord("x=\"y\"\nzomiPW=\"p w%s\"\nzomiID=\"ann@example.com\"\n");
  EXPECT_EQ(ZomiConfigGet(credentials_.get()), 0);
  EXPECT_EQ(Id(), "ann@example.com");
  EXPECT_EQ(Password(), "p w%s");
  EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(ZomiConfigGetTest, FieldsAre4096BytesEachInThisOrder) {
  static_assert(sizeof(LegacyCredentials) == 8192);
  static_assert(offsetof(LegacyCredentials, zomi_id) == 0);
  static_assert(offsetof(LegacyCredentials, zomi_pw) == 4096);
}

TEST_F(ZomiConfigGetTest, CallsInTheirOrderWithTheirSizes) {
  WriteRecord("zomiID=\"a\"\nzomiPW=\"b\"\n");
  EXPECT_EQ(ZomiConfigGet(credentials_.get()), 0);
  EXPECT_THAT(platform().calls("KLIBCSzListAlloc").at(0).args, ElementsAre("512"));
  EXPECT_THAT(platform().calls("KLIBCSzHashAlloc").at(0).args, ElementsAre("512"));
  EXPECT_THAT(platform().calls("KLIBCSzListPush"),
              ElementsAre(testing::Field(&fake_hos::Call::args, ElementsAre("zomiID")),
                          testing::Field(&fake_hos::Call::args, ElementsAre("zomiPW"))));
  EXPECT_THAT(platform().calls(),
              ElementsAre(fake_hos::Call{"KLIBCFileGetKeys", {account_files::kRecord, "="}}));
}

TEST_F(ZomiConfigGetTest, LongValuesAreCutAt4095BytesAndEnd) {
  WriteRecord("zomiID=\"" + std::string(5'000, 'i') + "\"\nzomiPW=\"" + std::string(5'000, 'p') +
              "\"\n");
  EXPECT_EQ(ZomiConfigGet(credentials_.get()), 0);
  EXPECT_EQ(Id(), std::string(4'095, 'i'));
  EXPECT_EQ(Password(), std::string(4'095, 'p'));
}

TEST_F(ZomiConfigGetTest, NoStructureIsAWrongParameter) {
  EXPECT_EQ(ZomiConfigGet(nullptr), -1);
  EXPECT_EQ(LastErrorCode(), 1U);
  EXPECT_THAT(Log(), IsEmpty());
  EXPECT_THAT(platform().all_calls(), IsEmpty());
}

TEST_F(ZomiConfigGetTest, NoRecordIsNoAccount) {
  EXPECT_EQ(ZomiConfigGet(credentials_.get()), -1);
  EXPECT_EQ(LastErrorCode(), 3U);
  EXPECT_THAT(Log(), IsEmpty());
  EXPECT_THAT(platform().all_calls(), IsEmpty());
}

class NoMemoryTest : public ZomiConfigGetTest, public testing::WithParamInterface<Sample> {};

TEST_P(NoMemoryTest, IsASystemError) {
  WriteRecord("zomiID=\"a\"\nzomiPW=\"b\"\n");
  platform().FailNext(GetParam().text);
  EXPECT_EQ(ZomiConfigGet(credentials_.get()), -1);
  EXPECT_EQ(LastErrorCode(), 6U);
  EXPECT_THAT(LogWithPriorities(), ElementsAre("user.err zomi_config_get Out of memory!!"));
}

INSTANTIATE_TEST_SUITE_P(Calls, NoMemoryTest,
                         testing::Values("KLIBCSzListAlloc", "KLIBCSzHashAlloc",
                                         "KLIBCSzListPush"));

TEST_F(ZomiConfigGetTest, KeysThatCannotBeReadAreNoAccount) {
  WriteRecord("zomiID=\"a\"\nzomiPW=\"b\"\n");
  platform().SetFailureTriple({0xBEEF, "keyvalue.c", 9});
  platform().FailNext("KLIBCFileGetKeys");
  EXPECT_EQ(ZomiConfigGet(credentials_.get()), -1);
  EXPECT_EQ(LastErrorCode(), 3U);
  EXPECT_THAT(LogWithPriorities(),
              ElementsAre(std::string("user.err zomi_config_get KLIBCFileGetKeys() failed!! "
                                      "szFile=[") +
                          account_files::kRecord + "], kivoerr=[0xBEEF]"));
}

TEST_F(ZomiConfigGetTest, SmallPlatformCodesAreShownWithFourDigits) {
  std::filesystem::create_directory(account_files::kRecord);
  platform().SetFailureTriple({0x7, "keyvalue.c", 9});
  EXPECT_EQ(ZomiConfigGet(credentials_.get()), -1);
  EXPECT_THAT(Log(), ElementsAre(testing::EndsWith("kivoerr=[0x0007]")));
}

struct MissingValue {
  const char* record;
  const char* key;         // the one that is reported
  const char* identifier;  // what the first field holds afterwards
};

void PrintTo(const MissingValue& row, std::ostream* out) { *out << TestName(row.record); }

class MissingValueTest : public ZomiConfigGetTest,
                         public testing::WithParamInterface<MissingValue> {};

TEST_P(MissingValueTest, IsNoAccount) {
  WriteRecord(GetParam().record);
  errno = 0;
  EXPECT_EQ(ZomiConfigGet(credentials_.get()), -1);
  EXPECT_EQ(LastErrorCode(), 3U);
  EXPECT_EQ(Id(), GetParam().identifier);
  EXPECT_EQ(Password(), "");
  EXPECT_THAT(LogWithPriorities(),
              ElementsAre(testing::MatchesRegex(
                  std::string("user\\.err zomi_config_get key \\[") + GetParam().key +
                  "\\] not found in " + account_files::kRecord + ", errno=[A-Z][^\n]*/[0-9]+\n")));
}

INSTANTIATE_TEST_SUITE_P(
    Records, MissingValueTest,
    testing::Values(MissingValue{"", "zomiID", ""}, MissingValue{"zomiPW=\"p\"\n", "zomiID", ""},
                    MissingValue{"zomiID=\"\"\nzomiPW=\"p\"\n", "zomiID", ""},
                    MissingValue{"zomiID=\"a\"\n", "zomiPW", "a"},
                    MissingValue{"zomiID=\"a\"\nzomiPW=\"\"\n", "zomiPW", "a"}));

TEST_F(ZomiConfigGetTest, MissingKeyShowsErrnoAsTextAndNumber) {
  WriteRecord("zomiID=\"a\"\n");
  platform().OnCall("KLIBCSzHashGetValue", [](const fake_hos::Call&) { errno = ENOENT; });
  EXPECT_EQ(ZomiConfigGet(credentials_.get()), -1);
  EXPECT_THAT(Log(), ElementsAre(testing::EndsWith("errno=No such file or directory/2\n")));
}

TEST_F(ZomiConfigGetTest, AnyFailingCallGivesMinusOneWithACodeAndGivesEverythingBack) {
  static constexpr char kRecord[] = "zomiID=\"a\"\nzomiPW=\"b\"\n";
  int result = 0;
  FailEachCall(
      [] {
        SetLastErrorCode(kSuccess);
        WriteRecord(kRecord);
      },
      [&] { result = ZomiConfigGet(credentials_.get()); },
      [&] {
        EXPECT_EQ(result, -1);
        EXPECT_THAT(LastErrorCode(), testing::AnyOf(3U, 6U));
        EXPECT_EQ(ReadRecord(), kRecord);
      });
}

}  // namespace
}  // namespace nodelink
