#include "account/user.h"

#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <limits>
#include <string>
#include <vector>

#include "account/account_files.h"
#include "tests/account/record_fixture.h"

namespace nodelink {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

const std::string kRecordPath = account_files::kRecord;

std::vector<TextKey> TextKeys() {
  return {record::kAccountHost,
          record::kIdentityHost,
          record::kZomiId,
          record::kZomiIdSerial,
          record::kHsAuthKey,
          record::kFullName,
          record::kCountry,
          record::kTimezone,
          record::kNotifyLanguage,
          record::kCriticalVersionList,
          record::kCriticalVersionDomain,
          record::kReportCronTimestring};
}

std::vector<FlagKey> FlagKeys() {
  return {record::kActivated,
          record::kDisabled,
          record::kEnews,
          record::kCriticalRelease,
          record::kEnewsLocalPromotion,
          record::kRealnameValidationPass};
}

// What the record file promises to other programs: the names and defaults of its keys.
struct KeyDefault {
  std::string name;
  std::string default_value;
  bool operator==(const KeyDefault&) const = default;
};

void PrintTo(const KeyDefault& key, std::ostream* out) {
  *out << key.name << "=" << key.default_value;
}

class UserTest : public PlatformTest {
 protected:
  User user_;
};

TEST_F(UserTest, TextKeysHaveTheirNamesAndDefaultsWithoutARecord) {
  std::vector<KeyDefault> keys;
  for (const TextKey& key : TextKeys()) keys.push_back({key.name, user_.Get(key)});
  EXPECT_THAT(
      keys, ElementsAre(KeyDefault{"account_host", ""}, KeyDefault{"identity_host", ""},
                        KeyDefault{"zomiID", ""}, KeyDefault{"zomiIDSerial", ""},
                        KeyDefault{"hs_auth_key", ""}, KeyDefault{"full_name", ""},
                        KeyDefault{"country", ""}, KeyDefault{"timezone", ""},
                        KeyDefault{"notify_language", ""}, KeyDefault{"critical_version_list", ""},
                        KeyDefault{"critical_version_domain", ""},
                        KeyDefault{"report_cron_timestring", "~ 9~16 * * 1~5"}));
  EXPECT_FALSE(HasRecord());
  EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(UserTest, FlagKeysHaveTheirNamesAndDefaultsWithoutARecord) {
  std::vector<KeyDefault> keys;
  for (const FlagKey& key : FlagKeys()) {
    keys.push_back({key.name, user_.Get(key) ? "true" : "false"});
  }
  EXPECT_THAT(keys,
              ElementsAre(KeyDefault{"activated", "false"}, KeyDefault{"disabled", "false"},
                          KeyDefault{"enews", "false"}, KeyDefault{"critical_release", "false"},
                          KeyDefault{"enews_local_promotion", "false"},
                          KeyDefault{"realname_validation_pass", "true"}));
}

TEST_F(UserTest, QueryTimeIsZeroWithoutARecord) {
  EXPECT_STREQ(record::kLastQueryTime.name, "last_query_time");
  EXPECT_EQ(user_.Get(record::kLastQueryTime), 0);
}

TEST_F(UserTest, EmptyAndMissingValuesReadAsTheDefault) {
  for (const char* content : {"", "other=\"x\"\n",
                              "report_cron_timestring=\"\"\nrealname_validation_pass=\"\"\n"
                              "activated=\"\"\nlast_query_time=\"\"\nzomiID=\"\"\n"}) {
    WriteRecord(content);
    EXPECT_EQ(user_.Get(record::kReportCronTimestring), "~ 9~16 * * 1~5") << content;
    EXPECT_TRUE(user_.Get(record::kRealnameValidationPass)) << content;
    EXPECT_FALSE(user_.Get(record::kActivated)) << content;
    EXPECT_EQ(user_.Get(record::kLastQueryTime), 0) << content;
    EXPECT_FALSE(user_.HasAccount()) << content;
  }
}

TEST_F(UserTest, TextsAreStoredAsTheyAreGiven) {
  for (const TextKey& key : TextKeys()) {
    user_.Set(key, "Zo\xc3\xab %s \\ = # ' $x");
    EXPECT_EQ(user_.Get(key), "Zo\xc3\xab %s \\ = # ' $x") << key.name;
    EXPECT_EQ(ReadRecord(), std::string(key.name) + "=\"Zo\xc3\xab %s \\ = # ' $x\"\n");
    RemoveRecord();
  }
}

TEST_F(UserTest, KeyKeepsItsPlaceAndTheOthersTheirValues) {
  WriteRecord("# note\nzomiID=\"old\"\n\nunknown=\"kept\"\n");
  user_.Set(record::kZomiId, "new");
  user_.Set(record::kCountry, "CH");
  EXPECT_EQ(ReadRecord(), "# note\nzomiID=\"new\"\n\nunknown=\"kept\"\ncountry=\"CH\"\n");
}

TEST_F(UserTest, NothingIsKeptInMemory) {
  user_.Set(record::kZomiId, "a@example.com");
  WriteRecord("zomiID=\"b@example.com\"\n");
  EXPECT_EQ(user_.Get(record::kZomiId), "b@example.com");
  RemoveRecord();
  EXPECT_EQ(user_.Get(record::kZomiId), "");
}

TEST_F(UserTest, ReadIsOnePlatformCall) {
  WriteRecord("zomiID=\"a\"\n");
  (void)user_.Get(record::kZomiId);
  EXPECT_THAT(
      platform().calls(),
      ElementsAre(fake_hos::Call{"KLIBCFileGetKeyValue", {kRecordPath, "zomiID", "2048", "0"}}));
}

TEST_F(UserTest, LongTextIsCutAt2047Bytes) {
  WriteRecord("full_name=\"" + std::string(5'000, 'n') + "\"\n");
  EXPECT_EQ(user_.Get(record::kFullName), std::string(2'047, 'n'));
}

TEST_F(UserTest, ReadErrorGivesTheDefaultAndNoLogLine) {
  WriteRecord("report_cron_timestring=\"1 2 * * *\"\nzomiID=\"a\"\nactivated=\"yes\"\n");
  platform().FailAlways("KLIBCFileGetKeyValue");
  EXPECT_EQ(user_.Get(record::kReportCronTimestring), "~ 9~16 * * 1~5");
  EXPECT_FALSE(user_.Get(record::kActivated));
  EXPECT_TRUE(user_.Get(record::kRealnameValidationPass));
  EXPECT_FALSE(user_.HasAccount());
  EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(UserTest, HasAccountExactlyWithAnIdentifier) {
  WriteRecord("zomiIDSerial=\"7\"\nhs_auth_key=\"k\"\n");
  EXPECT_FALSE(user_.HasAccount());
  WriteRecord("zomiID=\" \"\n");
  EXPECT_TRUE(user_.HasAccount());
}

struct StoredFlag {
  const char* text;
  bool value;
};

void PrintTo(const StoredFlag& flag, std::ostream* out) { *out << TestName(flag.text); }

class StoredFlagTest : public UserTest, public testing::WithParamInterface<StoredFlag> {};

TEST_P(StoredFlagTest, ReadsTheSameWhateverTheDefault) {
  for (const FlagKey& key : FlagKeys()) {
    WriteRecord(std::string(key.name) + "=\"" + GetParam().text + "\"\n");
    EXPECT_EQ(user_.Get(key), GetParam().value) << key.name << " " << GetParam().text;
  }
}

INSTANTIATE_TEST_SUITE_P(Texts, StoredFlagTest,
                         testing::Values(StoredFlag{"yes", true}, StoredFlag{"true", true},
                                         StoredFlag{"no", false}, StoredFlag{"false", false},
                                         StoredFlag{"1", false}, StoredFlag{"0", false},
                                         StoredFlag{"TRUE", false}, StoredFlag{"True", false},
                                         StoredFlag{"YES", false}, StoredFlag{"yes ", false},
                                         StoredFlag{" yes", false}, StoredFlag{"yess", false},
                                         StoredFlag{"truth", false}));

TEST_F(UserTest, FlagsAreWrittenAsYesAndNo) {
  for (const FlagKey& key : FlagKeys()) {
    user_.Set(key, true);
    EXPECT_EQ(ReadRecord(), std::string(key.name) + "=\"yes\"\n");
    EXPECT_TRUE(user_.Get(key));
    user_.Set(key, false);
    EXPECT_EQ(ReadRecord(), std::string(key.name) + "=\"no\"\n");
    EXPECT_FALSE(user_.Get(key));
    RemoveRecord();
  }
}

struct StoredInteger {
  std::string text;
  std::int64_t value;
};

void PrintTo(const StoredInteger& integer, std::ostream* out) { *out << TestName(integer.text); }

class StoredIntegerTest : public UserTest, public testing::WithParamInterface<StoredInteger> {};

TEST_P(StoredIntegerTest, Reads) {
  WriteRecord("last_query_time=\"" + GetParam().text + "\"\n");
  EXPECT_EQ(user_.Get(record::kLastQueryTime), GetParam().value) << GetParam().text;
  EXPECT_EQ(user_.Get(IntegerKey{"no_such_key", 77}), 77);
}

constexpr std::int64_t kLowest = std::numeric_limits<std::int64_t>::min();
constexpr std::int64_t kHighest = std::numeric_limits<std::int64_t>::max();

INSTANTIATE_TEST_SUITE_P(Texts, StoredIntegerTest,
                         testing::Values(StoredInteger{"1700000000", 1'700'000'000},
                                         StoredInteger{"-5", -5}, StoredInteger{"+5", 5},
                                         StoredInteger{"0", 0}, StoredInteger{" 12", 12},
                                         StoredInteger{"12 apples", 12}, StoredInteger{"010", 10},
                                         StoredInteger{"9223372036854775807", kHighest},
                                         StoredInteger{"-9223372036854775808", kLowest},
                                         StoredInteger{"", 0}, StoredInteger{" ", 0},
                                         StoredInteger{"-", 0}, StoredInteger{"apples", 0},
                                         StoredInteger{"x12", 0}));

TEST_F(UserTest, TextThatIsNoNumberReadsAsTheIntegersOwnDefault) {
  WriteRecord("count=\"many\"\n");
  EXPECT_EQ(user_.Get(IntegerKey{"count", 77}), 77);
}

TEST_F(UserTest, IntegersOfEverySizeAreReadBack) {
  for (const std::int64_t value : {kLowest, std::int64_t{-1}, std::int64_t{0}, kHighest}) {
    user_.Set(record::kLastQueryTime, value);
    EXPECT_EQ(ReadRecord(), "last_query_time=\"" + std::to_string(value) + "\"\n");
    EXPECT_EQ(user_.Get(record::kLastQueryTime), value);
  }
}

// Keeps the order of the platform's write and the two calls that protect the file.
class UserWriteTest : public UserTest {
 protected:
  void SetUp() override {
    platform().OnCall("KLIBCFileSetKeyValue",
                      [this](const fake_hos::Call& call) { steps_.push_back(call.ToText()); });
    hooks().chmod = [this](const char* path, mode_t mode) {
      EXPECT_EQ(mode, 0600U);
      steps_.push_back(std::string("chmod ") + path);
      errno = EROFS;
      return chmod_result_;
    };
    hooks().chown = [this](const char* path, uid_t owner, gid_t group) {
      EXPECT_EQ(owner, 0U);
      EXPECT_EQ(group, 0U);
      steps_.push_back(std::string("chown ") + path);
      errno = EPERM;
      return chown_result_;
    };
  }

  void ExpectAllSteps(const std::string& value) {
    EXPECT_THAT(steps_, ElementsAre("KLIBCFileSetKeyValue(" + kRecordPath + ", zomiID, " + value +
                                        ", %s=\"%s\"\n)",
                                    "chmod " + kRecordPath, "chown " + kRecordPath));
  }

  int chmod_result_ = 0;
  int chown_result_ = 0;
  std::vector<std::string> steps_;
};

TEST_F(UserWriteTest, WritesThenProtectsTheFile) {
  user_.Set(record::kZomiId, "a");
  ExpectAllSteps("a");
  EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(UserWriteTest, FailedWriteIsLoggedProtectsAllTheSameAndThrows) {
  platform().FailNext("KLIBCFileSetKeyValue");
  EXPECT_EQ(CodeThrownBy([this] { user_.Set(record::kZomiId, "a"); }), 19U);
  ExpectAllSteps("a");
  EXPECT_THAT(LogWithPriorities(),
              ElementsAre("user.err user Failed to set zomi config for zomiID:a"));
}

TEST_F(UserWriteTest, FailedProtectionIsLoggedOnly) {
  chmod_result_ = -1;
  chown_result_ = -1;
  user_.Set(record::kZomiId, "a");
  ExpectAllSteps("a");
  EXPECT_EQ(ReadRecord(), "zomiID=\"a\"\n");
  EXPECT_THAT(LogWithPriorities(), ElementsAre("user.err user chmod failed, path=" + kRecordPath +
                                                   ", reason=Read-only file system",
                                               "user.err user chown failed, path=" + kRecordPath +
                                                   ", reason=Operation not permitted"));
}

TEST_F(UserWriteTest, EverythingFailedIsLoggedInItsOrder) {
  chmod_result_ = -1;
  chown_result_ = -1;
  platform().FailNext("KLIBCFileSetKeyValue");
  EXPECT_EQ(CodeThrownBy([this] { user_.Set(record::kZomiId, "a"); }), 19U);
  EXPECT_THAT(Log(), ElementsAre(testing::StartsWith("user Failed to set zomi config"),
                                 testing::StartsWith("user chmod failed"),
                                 testing::StartsWith("user chown failed")));
}

TEST_F(UserTest, WrittenRecordBelongsToRootAlone) {
  test_files::Write(account_files::kRecord, "zomiID=\"a\"\n", 0666);
  ASSERT_EQ(chown(account_files::kRecord, 0, 0), 0);
  user_.Set(record::kZomiId, "b");
  EXPECT_EQ(RecordProtection(), "600 0:0");
  RemoveRecord();
  user_.Set(record::kActivated, true);
  EXPECT_EQ(RecordProtection(), "600 0:0");
}

TEST_F(UserTest, RecordIsTakenBackFromAnotherOwnerEvenWhenTheWriteFails) {
  test_files::Write(account_files::kRecord, "zomiID=\"a\"\n", 0666);
  if (chown(account_files::kRecord, 1026, 100) != 0) {
    GTEST_SKIP() << "there is no other user in a lab of an ordinary user";
  }
  platform().FailNext("KLIBCFileSetKeyValue");
  EXPECT_EQ(CodeThrownBy([this] { user_.Set(record::kLastQueryTime, 5); }), 19U);
  EXPECT_EQ(RecordProtection(), "600 0:0");
  EXPECT_EQ(ReadRecord(), "zomiID=\"a\"\n");
}

class RefusedTextTest : public UserTest, public testing::WithParamInterface<Sample> {};

TEST_P(RefusedTextTest, NeverBecomesASecondKeyOrALostEnd) {
  WriteRecord("full_name=\"Ann\"\nactivated=\"no\"\n");
  EXPECT_EQ(CodeThrownBy([this] { user_.Set(record::kFullName, GetParam().text); }), 19U);
  EXPECT_EQ(ReadRecord(), "full_name=\"Ann\"\nactivated=\"no\"\n");
  EXPECT_EQ(RecordProtection(), "600 0:0");
  const std::string up_to_nul = GetParam().text.substr(0, GetParam().text.find('\0'));
  EXPECT_THAT(Log(), ElementsAre("user Failed to set zomi config for full_name:" + up_to_nul));
}

INSTANTIATE_TEST_SUITE_P(Texts, RefusedTextTest,
                         testing::Values("Ann\"\nactivated=\"yes", "\n", "Ann\n", "a\nb",
                                         std::string("Ann\0Bob", 7), std::string("\0", 1)));

TEST_F(UserTest, FolderInTheRecordsPlaceReadsAsEmptyAndCannotBeWritten) {
  std::filesystem::create_directory(account_files::kRecord);
  EXPECT_EQ(user_.Get(record::kZomiId), "");
  EXPECT_EQ(CodeThrownBy([this] { user_.Set(record::kZomiId, "a"); }), 19U);
}

TEST_F(UserTest, RootUsesNoCredentialCalls) {
  int calls = 0;
  hooks().setresuid = [&calls](uid_t, uid_t, uid_t) { return ++calls, 0; };
  hooks().setresgid = [&calls](gid_t, gid_t, gid_t) { return ++calls, 0; };
  user_.Set(record::kZomiId, "a");
  EXPECT_EQ(user_.Get(record::kZomiId), "a");
  EXPECT_EQ(calls, 0);
  EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(UserTest, WriteWithAnyFailingCallThrowsOrIsWhole) {
  std::uint32_t code = 0;
  FailEachCall([] { WriteRecord("zomiID=\"a\"\n"); },
               [&] { code = CodeThrownBy([this] { user_.Set(record::kZomiId, "b"); }); },
               [&] {
                 EXPECT_EQ(code, 19U);
                 EXPECT_EQ(ReadRecord(), "zomiID=\"a\"\n");
               });
}

TEST_F(UserTest, ReadWithAnyFailingCallGivesTheDefault) {
  std::string text;
  FailEachCall([] { WriteRecord("zomiID=\"a\"\n"); }, [&] { text = user_.Get(record::kZomiId); },
               [&] { EXPECT_EQ(text, ""); });
}

}  // namespace
}  // namespace nodelink
