#include "account/account_link.h"

#include <string>
#include <vector>

#include "core/error_code.h"
#include "oauth/session_test.h"

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
};

TEST_F(AccountLinkTest, WritesSerialThenKey) {
  WriteAccountLink("4711", "key");
  EXPECT_THAT(Writes(), ElementsAre("zomiIDSerial=4711", "hs_auth_key=key"));
  EXPECT_EQ(ReadRecord(), "zomiIDSerial=\"4711\"\nhs_auth_key=\"key\"\n");
}

TEST_F(AccountLinkTest, TheSameAccountKeepsItsProfile) {
  WriteRecord("zomiIDSerial=\"4711\"\nlast_query_time=\"1700000000\"\n");
  WriteAccountLink("4711", "new key");
  EXPECT_THAT(Writes(), ElementsAre("zomiIDSerial=4711", "hs_auth_key=new key"));
}

TEST_F(AccountLinkTest, AnotherAccountsProfileIsStaleFirst) {
  WriteRecord("zomiIDSerial=\"1\"\nlast_query_time=\"1700000000\"\n");
  WriteAccountLink("4711", "key");
  EXPECT_THAT(Writes(), ElementsAre("last_query_time=0", "zomiIDSerial=4711", "hs_auth_key=key"));
}

TEST_F(AccountLinkTest, AWriteThatFailsThrows) {
  for (const int n : {1, 2}) {
    platform().FailCall("KLIBCFileSetKeyValue", n);
    EXPECT_EQ(Catch([] { WriteAccountLink("4711", "key"); }).code, kAccountNotWritten) << n;
  }
}

TEST_F(AccountLinkTest, ALineBreakIsNotWritten) {
  EXPECT_EQ(Catch([] { WriteAccountLink("47\n11", "key"); }).code, kAccountNotWritten);
  EXPECT_EQ(Catch([] { WriteAccountLink("4711", "a\nb=\"c\""); }).code, kAccountNotWritten);
  EXPECT_EQ(ReadRecord(), "zomiIDSerial=\"4711\"\n");
}

}  // namespace
}  // namespace nodelink
