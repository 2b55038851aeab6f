#include "account/server_info.h"

#include <filesystem>
#include <stdexcept>
#include <string>

#include "tests/account/record_fixture.h"
#include "tests/account/server_info_fixture.h"

namespace nodelink {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

using ServerInfoTest = ServersTest;

std::string HostsOf(const ServerInfo& servers) {
  return servers.PaymentHost() + " " + servers.AccountHost() + " " + servers.IdentityHost();
}

constexpr char kProductionHosts[] =
    "https://payment.veltrix.example https://account.veltrix.example "
    "https://identity.veltrix.example";
constexpr char kTestHosts[] =
    "https://payment.test.veltrix.example https://account.test.veltrix.example "
    "https://identity.test.veltrix.example";

TEST_F(ServerInfoTest, SwitchSetToTestGivesTheTestHosts) {
  SetDefaults("kivopkg_server=\"test\"\n");
  EXPECT_TRUE(servers_.IsTest());
  EXPECT_EQ(HostsOf(servers_), kTestHosts);
}

class OtherSwitchTest : public ServerInfoTest, public testing::WithParamInterface<Sample> {};

TEST_P(OtherSwitchTest, GivesTheProductionHosts) {
  SetDefaults(GetParam().text);
  EXPECT_FALSE(servers_.IsTest());
  EXPECT_EQ(HostsOf(servers_), kProductionHosts);
  EXPECT_THAT(Log(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Defaults, OtherSwitchTest,
                         testing::Values("", "model=\"NL224\"\n", "kivopkg_server=\"\"\n",
                                         "kivopkg_server=\"Test\"\n", "kivopkg_server=\"TEST\"\n",
                                         "kivopkg_server=\"test \"\n", "kivopkg_server=\" test\"\n",
                                         "kivopkg_server=\"tes\"\n", "kivopkg_server=\"testing\"\n",
                                         "kivopkg_server=\"yes\"\n",
                                         "kivopkg_server=\"test" + std::string(100, ' ') + "\"\n"));

TEST_F(ServerInfoTest, MissingDefaultsGiveTheProductionHosts) {
  std::filesystem::remove(kDefaults);
  EXPECT_FALSE(servers_.IsTest());
  EXPECT_EQ(HostsOf(servers_), kProductionHosts);
}

TEST_F(ServerInfoTest, UnreadableDefaultsGiveTheProductionHosts) {
  SetDefaults("kivopkg_server=\"test\"\n");
  platform().FailAlways("KLIBCFileGetKeyValue");
  EXPECT_FALSE(servers_.IsTest());
  EXPECT_EQ(HostsOf(servers_), kProductionHosts);
}

TEST_F(ServerInfoTest, LiveConfigurationHasNoSwitch) {
  test_files::Write("/etc/kivoinfo.conf", "kivopkg_server=\"test\"\n");
  EXPECT_FALSE(servers_.IsTest());
  std::filesystem::remove("/etc/kivoinfo.conf");
}

TEST_F(ServerInfoTest, SwitchIsReadIntoA64ByteBufferEachTime) {
  EXPECT_FALSE(servers_.IsTest());
  SetDefaults("kivopkg_server=\"test\"\n");
  EXPECT_TRUE(servers_.IsTest());
  const fake_hos::Call read{"KLIBCFileGetKeyValue", {kDefaults, "kivopkg_server", "64", "0"}};
  EXPECT_THAT(platform().calls(), ElementsAre(read, read));
}

TEST_F(ServerInfoTest, HostOfTheRecordGoesBeforeTheSwitch) {
  WriteRecord("identity_host=\"https://id.own.example\"\n");
  EXPECT_EQ(HostsOf(servers_),
            "https://payment.veltrix.example https://account.veltrix.example "
            "https://id.own.example");
  SetDefaults("kivopkg_server=\"test\"\n");
  EXPECT_EQ(HostsOf(servers_),
            "https://payment.test.veltrix.example https://account.test.veltrix.example "
            "https://id.own.example");
}

TEST_F(ServerInfoTest, HostsOfTheRecordAreIndependentOfEachOther) {
  SetDefaults("kivopkg_server=\"test\"\n");
  WriteRecord("account_host=\"https://acc.own.example\"\nidentity_host=\"\"\n");
  EXPECT_EQ(HostsOf(servers_),
            "https://payment.test.veltrix.example https://acc.own.example "
            "https://identity.test.veltrix.example");
}

TEST_F(ServerInfoTest, HostOfTheRecordIsTakenAsItIs) {
  WriteRecord("account_host=\" HTTP://Own.Example:8443/base/ \"\n");
  EXPECT_EQ(servers_.AccountHost(), " HTTP://Own.Example:8443/base/ ");
}

TEST_F(ServerInfoTest, RecordIsReadAfreshEachTime) {
  EXPECT_EQ(servers_.AccountHost(), "https://account.veltrix.example");
  WriteRecord("account_host=\"https://acc.own.example\"\n");
  EXPECT_EQ(servers_.AccountHost(), "https://acc.own.example");
}

TEST_F(ServerInfoTest, RecordThatCannotBeReadIsLoggedAndCountsAsOneWithoutHosts) {
  ThrowOnRead("account_host", ZomiException(kSystemError));
  ThrowOnRead("identity_host", ZomiException(kSystemError));
  EXPECT_EQ(servers_.AccountHost(), "https://account.veltrix.example");
  EXPECT_EQ(servers_.IdentityHost(), "https://identity.veltrix.example");
  EXPECT_THAT(LogWithPriorities(),
              ElementsAre("user.err server_info Failed to get user defined account host",
                          "user.err server_info Failed to get user defined identity host"));
}

TEST_F(ServerInfoTest, OtherExceptionsPass) {
  ThrowOnRead("account_host", std::runtime_error("other"));
  EXPECT_THROW((void)servers_.AccountHost(), std::runtime_error);
}

TEST_F(ServerInfoTest, FailureElsewhereIsNotTakenForOneOfTheRecord) {
  ThrowOnRead("kivopkg_server", ZomiException(kSystemError));
  EXPECT_THROW((void)servers_.AccountHost(), ZomiException);
  EXPECT_THROW((void)servers_.PaymentHost(), ZomiException);
}

TEST_F(ServerInfoTest, AnyFailingCallGivesSomeHost) {
  std::string hosts;
  FailEachCall([] { WriteRecord("account_host=\"https://acc.own.example\"\n"); },
               [&] { hosts = HostsOf(servers_); },
               [&] { EXPECT_THAT(hosts, testing::StartsWith("https://payment.veltrix.example")); });
}

}  // namespace
}  // namespace nodelink
