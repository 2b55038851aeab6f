#include "kivo/zomi_server_config.h"

#include <memory>
#include <string>

#include "tests/account/record_fixture.h"
#include "tests/account/server_info_fixture.h"

namespace nodelink {
namespace {

using testing::IsEmpty;

class ZomiServerConfigTest : public ServersTest {
 protected:
  std::unique_ptr<KIVOZOMI_SERVER_CONFIG> config_ = std::make_unique<KIVOZOMI_SERVER_CONFIG>();
};

TEST_F(ZomiServerConfigTest, GivesPaymentAndAccountHost) {
  EXPECT_EQ(KIVOZOMIServerConfigGet(config_.get()), 0);
  EXPECT_STREQ(config_->payment_host, "https://payment.veltrix.example");
  EXPECT_STREQ(config_->account_host, "https://account.veltrix.example");
  EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(ZomiServerConfigTest, FieldsAre2048BytesEachInThisOrder) {
  static_assert(sizeof(KIVOZOMI_SERVER_CONFIG) == 4096);
  static_assert(offsetof(KIVOZOMI_SERVER_CONFIG, payment_host) == 0);
  static_assert(offsetof(KIVOZOMI_SERVER_CONFIG, account_host) == 2048);
}

TEST_F(ZomiServerConfigTest, LongHostIsCutAt2047BytesAndEnds) {
  WriteRecord("account_host=\"" + std::string(3'000, 'h') + "\"\n");
  EXPECT_EQ(KIVOZOMIServerConfigGet(config_.get()), 0);
  EXPECT_EQ(config_->account_host, std::string(2'047, 'h'));
}

TEST_F(ZomiServerConfigTest, NoStructureIsAWrongParameter) {
  SetLastErrorCode(kSuccess);
  EXPECT_EQ(KIVOZOMIServerConfigGet(nullptr), -1);
  EXPECT_EQ(LastErrorCode(), 1U);
  EXPECT_THAT(platform().calls(), IsEmpty());
}

TEST_F(ZomiServerConfigTest, ExceptionBecomesItsCode) {
  ThrowOnRead("kivopkg_server", ZomiException(kNoServerConfig));
  EXPECT_EQ(KIVOZOMIServerConfigGet(config_.get()), -1);
  EXPECT_EQ(LastErrorCode(), 23U);
}

TEST_F(ZomiServerConfigTest, UnreadableRecordIsNoFailure) {
  ThrowOnRead("account_host", ZomiException(kSystemError));
  EXPECT_EQ(KIVOZOMIServerConfigGet(config_.get()), 0);
  EXPECT_STREQ(config_->account_host, "https://account.veltrix.example");
}

}  // namespace
}  // namespace nodelink
