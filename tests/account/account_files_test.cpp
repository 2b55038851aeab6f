#include "account/account_files.h"

#include "tests/support/platform_fixture.h"

namespace nodelink::account_files {
namespace {

class AccountFilesTest : public PlatformTest {};

TEST_F(AccountFilesTest, ALocksNameBecomesAPathInTmp) {
  EXPECT_EQ(LockFile("query_info"), "/tmp/account_query_info.lock");
  EXPECT_EQ(LockFile("login_get_token"), "/tmp/account_login_get_token.lock");
  EXPECT_EQ(LockFile("%s"), "/tmp/account_%s.lock");
}

TEST_F(AccountFilesTest, EachClientHasItsTokenFile) {
  EXPECT_EQ(TokenFile("login"), "/usr/kivo/etc/veltrix-account/private/login_token.json");
  EXPECT_TRUE(IsTokenFile("login_token.json"));
  EXPECT_TRUE(IsTokenFile("_token.json"));
  EXPECT_FALSE(IsTokenFile(".login_token.json.a1b2c3"));
  EXPECT_FALSE(IsTokenFile(".login_token.json"));
  EXPECT_FALSE(IsTokenFile("user.conf"));
}

TEST_F(AccountFilesTest, ARecordIsRemovedOnce) {
  WriteRecord("zomiID=\"a\"\n");
  EXPECT_TRUE(account_files::RemoveRecord());
  EXPECT_FALSE(HasRecord());
  EXPECT_FALSE(account_files::RemoveRecord());
}

}  // namespace
}  // namespace nodelink::account_files
