#include "account/token_files.h"

#include <algorithm>
#include <filesystem>
#include <vector>

#include "account/account_files.h"
#include "tests/account/record_fixture.h"

namespace nodelink {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class TokenFilesTest : public PlatformTest {
 protected:
  ~TokenFilesTest() override {
    for (const std::string& name : Names()) std::filesystem::remove(account_files::kFolder + name);
  }

  static void Make(const std::string& name) {
    test_files::Write(account_files::kFolder + name, name, 0600);
  }

  // In the private folder, without the locks.
  static std::vector<std::string> Names() {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(account_files::kFolder)) {
      const std::string name = entry.path().filename();
      if (!name.ends_with(".lock")) names.push_back(name);
    }
    std::sort(names.begin(), names.end());
    return names;
  }

  LinkLock lock_;
};

TEST_F(TokenFilesTest, OfEveryClientAreSetAsideAndComeBack) {
  Make("login_token.json");
  Make("register_token.json");
  Make("user.conf");
  {
    const TokensSetAside aside(lock_);
    EXPECT_THAT(Names(), ElementsAre(".login_token.json.tmp-aside",
                                     ".register_token.json.tmp-aside", "user.conf"));
  }
  EXPECT_THAT(Names(), ElementsAre("login_token.json", "register_token.json", "user.conf"));
  EXPECT_EQ(test_files::Read(account_files::kFolder + std::string("login_token.json")),
            "login_token.json");
}

TEST_F(TokenFilesTest, AreGoneOnceDropped) {
  Make("login_token.json");
  Make("user.conf");
  TokensSetAside(lock_).Drop();
  EXPECT_THAT(Names(), ElementsAre("user.conf"));
}

TEST_F(TokenFilesTest, WithoutAnyNothingHappens) {
  TokensSetAside(lock_).Drop();
  EXPECT_THAT(Names(), IsEmpty());
}

TEST_F(TokenFilesTest, LeftoversAreThoseOfRecordAndTokens) {
  Make(".user.conf.tmp-0123456789abcdef");
  Make(".login_token.json.tmp-0123456789abcdef");
  Make(".register_token.json.tmp-aside");
  Make(".other.conf.tmp-0123456789abcdef");
  Make(".user.conf");
  Make("user.conf.tmp-1");
  Make(".tmp-1");
  Make("user.conf");
  Make("login_token.json");
  RemoveAccountLeftovers(lock_);
  EXPECT_THAT(Names(), ElementsAre(".other.conf.tmp-0123456789abcdef", ".tmp-1", ".user.conf",
                                   "login_token.json", "user.conf", "user.conf.tmp-1"));
}

}  // namespace
}  // namespace nodelink
