#include "account/account_data.h"

#include <filesystem>
#include <limits>
#include <string>

#include "account/account_files.h"
#include "lab/users.h"
#include "tests/account/record_fixture.h"
#include "tests/support/child.h"

namespace nodelink {
namespace {

using testing::IsEmpty;

constexpr char kFullRecord[] =
    "account_host=\"https://a.example\"\nidentity_host=\"https://i.example\"\n"
    "zomiID=\"ann@example.com\"\nzomiIDSerial=\"77\"\nhs_auth_key=\"key\"\nfull_name=\"Ann\"\n"
    "country=\"CH\"\ntimezone=\"Zurich\"\nnotify_language=\"ger\"\n"
    "critical_version_list=\"a,c\"\ncritical_version_domain=\"a,b,c\"\n"
    "report_cron_timestring=\"1 2 * * 3\"\nlast_query_time=\"-9223372036854775808\"\n"
    "activated=\"yes\"\ndisabled=\"true\"\nenews=\"yes\"\ncritical_release=\"yes\"\n"
    "enews_local_promotion=\"yes\"\nrealname_validation_pass=\"no\"\n";

std::string Texts(const AccountData& data) {
  return data.account_host + " " + data.identity_host + " " + data.zomi_id + " " +
         data.zomi_id_serial + " " + data.hs_auth_key + " " + data.full_name + " " + data.country +
         " " + data.timezone + " " + data.notify_language + " " + data.critical_version_list + " " +
         data.critical_version_domain + " " + data.report_cron_timestring;
}

std::string Flags(const AccountData& data) {
  std::string flags;
  for (const bool flag : {data.activated, data.disabled, data.enews, data.critical_release,
                          data.enews_local_promotion, data.realname_validation_pass}) {
    flags += flag ? "1" : "0";
  }
  return flags;
}

constexpr char kDefaultTexts[] = "           ~ 9~16 * * 1~5";
constexpr char kDefaultFlags[] = "000001";

class AccountDataTest : public PlatformTest {
 protected:
  AccountData data_;
};

TEST_F(AccountDataTest, EveryKeyIsRead) {
  WriteRecord(kFullRecord);
  EXPECT_EQ(ReadAccountData(data_), 0);
  EXPECT_EQ(Texts(data_),
            "https://a.example https://i.example ann@example.com 77 key Ann CH Zurich ger a,c "
            "a,b,c 1 2 * * 3");
  EXPECT_EQ(Flags(data_), "111110");
  EXPECT_EQ(data_.last_query_time, std::numeric_limits<std::int64_t>::min());
  EXPECT_EQ(platform().call_count("KLIBCFileGetKeys"), 1U);
  EXPECT_THAT(Log(), IsEmpty());
}

class EmptyRecordTest : public AccountDataTest, public testing::WithParamInterface<Sample> {};

TEST_P(EmptyRecordTest, ReadsAsDefaultsAndIsNotLinked) {
  WriteRecord(GetParam().text);
  data_.zomi_id = data_.report_cron_timestring = "old";
  data_.activated = true;
  EXPECT_EQ(ReadAccountData(data_), 0);
  EXPECT_EQ(Texts(data_), kDefaultTexts);
  EXPECT_EQ(Flags(data_), kDefaultFlags);
  EXPECT_EQ(data_.last_query_time, 0);
  EXPECT_EQ(ReadLinkedAccountData(data_), -1);
}

INSTANTIATE_TEST_SUITE_P(Records, EmptyRecordTest,
                         testing::Values("", "# nothing\n\n",
                                         "zomiID=\"\"\nreport_cron_timestring=\"\"\n"
                                         "realname_validation_pass=\"\"\nactivated=\"\"\n"
                                         "last_query_time=\"\"\n",
                                         "zomiID\nlast_query_time=\"soon\"\n"));

TEST_F(AccountDataTest, MissingRecordReadsAsDefaultsAndIsNotLinked) {
  EXPECT_EQ(ReadAccountData(data_), 0);
  EXPECT_EQ(Texts(data_), kDefaultTexts);
  EXPECT_EQ(Flags(data_), kDefaultFlags);
  EXPECT_EQ(ReadLinkedAccountData(data_), -1);
  EXPECT_FALSE(HasRecord());
}

TEST_F(AccountDataTest, LinkedRecordIsRead) {
  WriteRecord(kFullRecord);
  EXPECT_EQ(ReadLinkedAccountData(data_), 0);
  EXPECT_EQ(data_.zomi_id, "ann@example.com");
}

TEST_F(AccountDataTest, RecordThatCannotBeReadIsNotAnEmptyOne) {
  std::filesystem::create_directory(account_files::kRecord);
  EXPECT_EQ(ReadAccountData(data_), -1);
  EXPECT_EQ(ReadLinkedAccountData(data_), -1);
}

TEST_F(AccountDataTest, MissingRecordReadsAsDefaultsForARealUserThatIsNotRoot) {
  if (!lab::HasOtherUsers()) GTEST_SKIP() << "there is no other user in a lab of an ordinary user";
  const std::string result = RunInChild([this] {
    BecomeIds({1026, 1026, 0, 100, 100, 0});
    return std::to_string(ReadAccountData(data_));
  });
  EXPECT_EQ(result, "0");
}

TEST_F(AccountDataTest, AnyFailingCallGivesMinusOneAndGivesEverythingBack) {
  int result = 0;
  FailEachCall([] { WriteRecord(kFullRecord); }, [&] { result = ReadAccountData(data_); },
               [&] {
                 EXPECT_EQ(result, -1);
                 EXPECT_EQ(ReadRecord(), kFullRecord);
               });
}

}  // namespace
}  // namespace nodelink
