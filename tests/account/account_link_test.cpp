#include "account/account_link.h"

#include <string>
#include <vector>

#include "account/account_files.h"
#include "core/error_code.h"
#include "tests/support/session_fixture.h"

namespace nodelink {
namespace {

using session::Catch;
using testing::ElementsAre;

class AccountLinkTest : public SessionTest {
 protected:
  // "KEY=VALUE" of each write, in order.
  static std::vector<std::string> Writes() {
    std::vector<std::string> writes;
    for (const fake_hos::Call& call : platform().calls("KLIBCFileSetKeyValue")) {
      writes.push_back(call.args[1] + "=" + call.args[2]);
    }
    return writes;
  }

  void Write(const std::string& id_serial, const std::string& auth_key) {
    RecordChange change;
    WriteAccountLink(lock_, change, {id_serial, auth_key});
  }

  void Replace(const std::string& id_serial, const std::string& auth_key) {
    ReplaceAccountLink(lock_, {id_serial, auth_key});
  }

  LinkLock lock_;
};

TEST_F(AccountLinkTest, WritesSerialThenKey) {
  Write("4711", "key");
  EXPECT_THAT(Writes(), ElementsAre("zomiIDSerial=4711", "hs_auth_key=key"));
  EXPECT_EQ(ReadRecord(), "zomiIDSerial=\"4711\"\nhs_auth_key=\"key\"\n");
}

TEST_F(AccountLinkTest, TheSameAccountKeepsItsProfileAndTokens) {
  WriteRecord("zomiIDSerial=\"4711\"\nlast_query_time=\"1700000000\"\n");
  WriteTokens("its tokens");
  Replace("4711", "new key");
  EXPECT_THAT(Writes(), ElementsAre("zomiIDSerial=4711", "hs_auth_key=new key"));
  EXPECT_EQ(ReadTokens(), "its tokens");
}

TEST_F(AccountLinkTest, AnotherAccountsProfileIsStaleFirst) {
  WriteRecord("zomiIDSerial=\"1\"\nlast_query_time=\"1700000000\"\n");
  Replace("4711", "key");
  EXPECT_THAT(Writes(), ElementsAre("last_query_time=0", "zomiIDSerial=4711", "hs_auth_key=key"));
}

TEST_F(AccountLinkTest, AnotherAccountsTokensAreRemoved) {
  for (const char* record : {"zomiIDSerial=\"1\"\n", ""}) {
    WriteRecord(record);
    WriteTokens("the former account's");
    test_files::Write(std::string(account_files::kFolder) + "register_token.json", "and more",
                      0600);
    Replace("4711", "key");
    EXPECT_FALSE(HasTokens());
    EXPECT_FALSE(test_files::Exists(std::string(account_files::kFolder) + "register_token.json"));
  }
}

TEST_F(AccountLinkTest, ALoginThatBringsTokensKeepsThem) {
  WriteRecord("zomiIDSerial=\"1\"\n");
  WriteTokens("the new account's");
  Write("4711", "key");
  EXPECT_EQ(ReadTokens(), "the new account's");
}

TEST_F(AccountLinkTest, AWriteThatFailsThrowsAndLeavesRecordAndTokensAsTheyWere) {
  const std::string before = "zomiIDSerial=\"1\"\nhs_auth_key=\"2\"\nlast_query_time=\"3\"\n";
  WriteRecord(before);
  WriteTokens("the former account's");
  for (const int n : {1, 2, 3}) {
    platform().FailCall("KLIBCFileSetKeyValue", n);
    EXPECT_EQ(Catch([this] { Replace("4711", "key"); }).code, kAccountNotWritten) << n;
    EXPECT_EQ(ReadRecord(), before);
    EXPECT_EQ(ReadTokens(), "the former account's");
  }
}

TEST_F(AccountLinkTest, ALineBreakIsNotWritten) {
  EXPECT_EQ(Catch([this] { Replace("47\n11", "key"); }).code, kAccountNotWritten);
  EXPECT_EQ(Catch([this] { Replace("4711", "a\nb=\"c\""); }).code, kAccountNotWritten);
  EXPECT_FALSE(HasRecord());
}

}  // namespace
}  // namespace nodelink
