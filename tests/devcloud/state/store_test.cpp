#include "devcloud/state/store.h"

#include <gmock/gmock.h>
#include <sys/stat.h>

#include "tests/devcloud/temporary_folder.h"

namespace {

using devcloud::Account;
using devcloud::Database;
using devcloud::Statement;
using devcloud::Store;
using devcloud::Transaction;
using testing::SizeIs;

constexpr char kMac[] = "02:00:5e:10:00:01";

class StoreTest : public testing::Test {
 protected:
  Account Add(const std::string& email) {
    Account account{.email = email};
    EXPECT_TRUE(store_.AddAccount(account, "secret"));
    return account;
  }

  Database database_{":memory:"};
  Store store_{database_};
};

TEST_F(StoreTest, KeepsEveryMemberOfAnAccount) {
  Account account{.user_id = "7",
                  .email = "anna@example.org",
                  .state = "badsys",
                  .full_name = "Anna \"Z\xc3\xb6\xc3\xa9\"\n'; DROP TABLE accounts; --",
                  .country = "CH",
                  .timezone = "Europe/Zurich",
                  .notify_language = "ger",
                  .activated = false,
                  .disabled = true,
                  .enews = true,
                  .enews_local_promotion = true,
                  .critical_release = true,
                  .realname_validation_pass = true,
                  .critical_version_list = {{"a", true}, {"b", false}},
                  .report_cron_timestring = "~ 1 * * *"};
  ASSERT_TRUE(store_.AddAccount(account, "secret"));
  const auto kept = store_.FindAccount("7");
  ASSERT_TRUE(kept);
  EXPECT_EQ(kept->email, account.email);
  EXPECT_EQ(kept->state, account.state);
  EXPECT_EQ(kept->full_name, account.full_name);
  EXPECT_EQ(kept->country, account.country);
  EXPECT_EQ(kept->timezone, account.timezone);
  EXPECT_EQ(kept->notify_language, account.notify_language);
  EXPECT_FALSE(kept->activated);
  EXPECT_TRUE(kept->disabled);
  EXPECT_TRUE(kept->enews);
  EXPECT_TRUE(kept->enews_local_promotion);
  EXPECT_TRUE(kept->critical_release);
  EXPECT_TRUE(kept->realname_validation_pass);
  EXPECT_EQ(kept->critical_version_list, account.critical_version_list);
  EXPECT_EQ(kept->report_cron_timestring, account.report_cron_timestring);
}

TEST_F(StoreTest, EmailsAreUniqueInAnyCase) {
  const Account anna = Add("anna@example.org");
  Account again{.email = "Anna@Example.org"};
  EXPECT_FALSE(store_.AddAccount(again, "x"));
  Account bob = Add("bob@example.org");
  bob.email = "ANNA@example.org";
  EXPECT_FALSE(store_.UpdateAccount(bob));
  EXPECT_EQ(store_.FindAccountByEmail("ANNA@EXAMPLE.ORG")->user_id, anna.user_id);
}

TEST_F(StoreTest, PasswordsAreCheckedAndHashed) {
  const Account anna = Add("anna@example.org");
  EXPECT_TRUE(store_.PasswordFits(anna.user_id, "secret"));
  EXPECT_FALSE(store_.PasswordFits(anna.user_id, "wrong"));
  EXPECT_FALSE(store_.PasswordFits("nobody", "secret"));
  store_.SetPassword(anna.user_id, "new");
  EXPECT_TRUE(store_.PasswordFits(anna.user_id, "new"));
  Statement select(database_, "SELECT password_hash FROM accounts");
  ASSERT_TRUE(select.Next());
  EXPECT_THAT(select.Text(), testing::StartsWith("$argon2"));
}

TEST_F(StoreTest, LinksOneAccountPerDevice) {
  const Account anna = Add("anna@example.org");
  const Account bob = Add("bob@example.org");
  store_.PutDevice({.serial = "NL1", .mac = kMac});
  const auto first = store_.LinkDevice("NL1", anna.user_id);
  ASSERT_TRUE(first);
  EXPECT_EQ(store_.LinkDevice("NL1", anna.user_id)->auth_key, first->auth_key);
  const auto second = store_.LinkDevice("NL1", bob.user_id);
  ASSERT_TRUE(second);
  EXPECT_NE(second->auth_key, first->auth_key);
  EXPECT_FALSE(store_.FindLinkByAuthKey(first->auth_key));
  EXPECT_EQ(store_.FindLink("NL1")->user_id, bob.user_id);
  EXPECT_TRUE(store_.Unlink("NL1"));
  EXPECT_FALSE(store_.Unlink("NL1"));
}

TEST_F(StoreTest, CountsTheAccountsThatADeviceEverHad) {
  const Account anna = Add("anna@example.org");
  const Account bob = Add("bob@example.org");
  store_.PutDevice({.serial = "NL1", .mac = kMac, .max_accounts = 1});
  ASSERT_TRUE(store_.LinkDevice("NL1", anna.user_id));
  EXPECT_TRUE(store_.Unlink("NL1"));
  EXPECT_FALSE(store_.LinkDevice("NL1", bob.user_id));
  EXPECT_TRUE(store_.LinkDevice("NL1", anna.user_id));
}

TEST_F(StoreTest, UnknownDevicesAreNotLinked) {
  EXPECT_FALSE(store_.LinkDevice("NL1", Add("anna@example.org").user_id));
}

TEST_F(StoreTest, RemovingTakesTheLinksAlong) {
  const Account anna = Add("anna@example.org");
  store_.PutDevice({.serial = "NL1", .mac = kMac});
  ASSERT_TRUE(store_.LinkDevice("NL1", anna.user_id));
  EXPECT_TRUE(store_.RemoveAccount(anna.user_id));
  EXPECT_FALSE(store_.RemoveAccount(anna.user_id));
  EXPECT_FALSE(store_.FindLink("NL1"));
  EXPECT_THAT(store_.Devices(), SizeIs(1));
  EXPECT_TRUE(store_.RemoveDevice("NL1"));
  EXPECT_THAT(store_.Devices(), SizeIs(0));
}

TEST_F(StoreTest, TransactionsThatAreNotCommittedLeaveNothing) {
  {
    Transaction outer(database_);
    store_.PutDevice({.serial = "NL1", .mac = kMac});
    {
      Transaction inner(database_);
      store_.PutDevice({.serial = "NL2", .mac = kMac});
    }
    EXPECT_THAT(store_.Devices(), SizeIs(1));
  }
  EXPECT_THAT(store_.Devices(), SizeIs(0));
}

TEST(StoreFileTest, OutlivesTheProgramAndIsPrivate) {
  const devcloud_test::TemporaryFolder folder;
  const std::string file = folder.path() + "/cloud.sqlite";
  {
    Database database(file);
    Store(database).PutDevice({.serial = "NL1", .mac = kMac, .api_key = "k"});
  }
  Database database(file);
  EXPECT_EQ(Store(database).FindDevice("NL1")->api_key, "k");
  struct stat status {};
  ASSERT_EQ(::stat(file.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777U, 0600U);
}

TEST(StoreFileTest, SaysWhatIsWrongWithAFile) {
  EXPECT_THROW(Database("/no/such/folder/x"), std::runtime_error);
  const devcloud_test::TemporaryFolder folder;
  folder.Write("x", "this is no database, although it is long enough to be looked at as one");
  EXPECT_THROW(Database(folder.path() + "/x"), std::runtime_error);
}

}  // namespace
