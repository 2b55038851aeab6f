#include "platform/hos_service.h"

#include <string>

#include "core/error_code.h"
#include "tests/support/session_fixture.h"

namespace nodelink {
namespace {

using fake_hos::Call;
using session::Catch;
using session::Thrown;
using testing::ElementsAre;
using testing::IsEmpty;

class HosServiceTest : public SessionTest {};

// --- who the device is ----------------------------------------------------------------------

TEST_F(HosServiceTest, SerialNumberIsThePlatforms) {
  EXPECT_EQ(HosService::GetSerialNumber(), "FAKE123456789");
  EXPECT_THAT(platform().calls(), ElementsAre(Call{"KLIBGetSerialNumber", {"36"}}));
  EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(HosServiceTest, ALongSerialNumberIsCutTo35Characters) {
  platform().device.serial_number = std::string(100, '7');
  EXPECT_EQ(HosService::GetSerialNumber(), std::string(35, '7'));
}

TEST_F(HosServiceTest, WithoutASerialNumberTheErrorTripleIsLogged) {
  platform().SetFailureTriple({0x4B2, "flash.c", 310});
  platform().FailNext("KLIBGetSerialNumber");
  EXPECT_EQ(Catch([] { (void)HosService::GetSerialNumber(); }), (Thrown{8, "System error"}));
  EXPECT_THAT(LogWithLines(), ElementsAre("hos_service:24 Failed to get serial number, "
                                          "err=[0x04B2 flash.c:310]"));
}

TEST_F(HosServiceTest, MacAddressIsThePlatforms) {
  EXPECT_EQ(HosService::GetMacAddress(), "02:11:22:33:44:55");
  EXPECT_THAT(platform().calls(), ElementsAre(Call{"KIVOHsinfoCloudServiceGetMacAddress", {"24"}}));
}

TEST_F(HosServiceTest, ALongMacAddressIsCutTo23Characters) {
  platform().device.mac_address = std::string(100, 'a');
  EXPECT_EQ(HosService::GetMacAddress(), std::string(23, 'a'));
}

TEST_F(HosServiceTest, WithoutAMacAddressItThrows) {
  platform().device.mac_address.reset();
  EXPECT_EQ(Catch([] { (void)HosService::GetMacAddress(); }), (Thrown{20, "System error"}));
  EXPECT_THAT(LogWithLines(), ElementsAre("hos_service:35 Failed to get mac address"));
}

TEST_F(HosServiceTest, UserAgentIsThePlatformsForTheProductZomi) {
  EXPECT_EQ(HosService::GetUserAgent(), "zomi HOS/7.2.1 (NX220)");
  EXPECT_THAT(platform().calls(), ElementsAre(Call{"KLIBHsinfoUserAgentGet", {"zomi", "256"}}));
}

TEST_F(HosServiceTest, ALongUserAgentIsCutTo255Characters) {
  platform().device.user_agent_tail = std::string(1000, 'a');
  EXPECT_EQ(HosService::GetUserAgent().size(), 255U);
}

TEST_F(HosServiceTest, AUserAgentThatThePlatformDoesNotKnowIsEmpty) {
  platform().device.user_agent_tail.reset();
  EXPECT_EQ(HosService::GetUserAgent(), "");
  EXPECT_THAT(LogWithLines(), ElementsAre("zomi_agent_name_get:17 KLIBHsinfoUserAgentGet failed, "
                                          "kivoerr=[0x0900 fake_hos:1]"));
}

TEST_F(HosServiceTest, AUserAgentThatCannotBeAskedForThrows) {
  UserAgentFails() = true;
  EXPECT_EQ(Catch([] { (void)HosService::GetUserAgent(); }), (Thrown{6, "System error"}));
  EXPECT_THAT(LogWithLines(), ElementsAre("hos_service:45 Failed to get zomi user agent"));
}

TEST_F(HosServiceTest, NothingIsKept) {
  EXPECT_EQ(HosService::GetSerialNumber(), "FAKE123456789");
  platform().device.serial_number = "OTHER";
  EXPECT_EQ(HosService::GetSerialNumber(), "OTHER");
  EXPECT_EQ(platform().call_count("KLIBGetSerialNumber"), 2U);
}

// --- the API key ----------------------------------------------------------------------------

TEST_F(HosServiceTest, ApiKeyIsThePlatformsWhichMayRegisterOne) {
  platform().cloud.stored_api_key = "stored-key";
  EXPECT_EQ(HosService::GetApiKey(), "stored-key");
  EXPECT_THAT(platform().calls(), ElementsAre(Call{"KIVOCloudServiceGetApiKey", {"1"}}));
}

TEST_F(HosServiceTest, ALongApiKeyComesWhole) {
  platform().cloud.stored_api_key = std::string(1023, 'k');
  EXPECT_EQ(HosService::GetApiKey(), std::string(1023, 'k'));
}

TEST_F(HosServiceTest, RegisteredApiKeyIsThePlatforms) {
  platform().cloud.next_api_key = "next-key";
  EXPECT_EQ(HosService::RegisterApiKey(), "next-key");
  EXPECT_THAT(platform().calls(), ElementsAre(Call{"KIVOCloudServiceRegisterApiKey", {}}));
}

struct CloudError {
  int library;
  std::uint32_t code;
};

class ApiKeyErrorTest : public HosServiceTest, public testing::WithParamInterface<CloudError> {
 protected:
  ApiKeyErrorTest() { platform().cloud.failure_code = GetParam().library; }
};

TEST_P(ApiKeyErrorTest, IsTheLibrarysWhenTheKeyCannotBeHad) {
  platform().FailNext("KIVOCloudServiceGetApiKey");
  EXPECT_EQ(Catch([] { (void)HosService::GetApiKey(); }).code, GetParam().code);
  EXPECT_THAT(LogWithLines(), ElementsAre("hos_service:57 Failed to get apikey"));
}

TEST_P(ApiKeyErrorTest, IsTheLibrarysWhenNoKeyCanBeRegistered) {
  platform().cloud.next_api_key.reset();
  EXPECT_EQ(Catch([] { (void)HosService::RegisterApiKey(); }).code, GetParam().code);
  EXPECT_THAT(LogWithLines(), ElementsAre("hos_service:69 Failed to register apikey"));
}

INSTANTIATE_TEST_SUITE_P(All, ApiKeyErrorTest,
                         testing::Values(CloudError{0, 0}, CloudError{1, 15}, CloudError{2, 24},
                                         CloudError{7, 24}, CloudError{-1, 24}),
                         [](const auto& test) { return "Case" + std::to_string(test.index); });

// --- notifications --------------------------------------------------------------------------

TEST_F(HosServiceTest, NotificationCarriesItsPlaceholdersInTheirOrder) {
  HosService::notify("the_tag", {{"%LINK%", "https://a"}, {"%EMAIL%", "e@x"}, {"%A%", ""}});
  EXPECT_THAT(platform().notifications,
              ElementsAre(fake_hos::Notification{
                  "the_tag", {{"%A%", ""}, {"%EMAIL%", "e@x"}, {"%LINK%", "https://a"}}}));
  EXPECT_THAT(platform().all_calls(), testing::Contains(Call{"KLIBCSzHashAlloc", {"1024"}}));
  EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(HosServiceTest, ANotificationWithoutPlaceholdersIsSent) {
  HosService::notify("the_tag", {});
  EXPECT_THAT(platform().notifications, ElementsAre(fake_hos::Notification{"the_tag", {}}));
}

TEST_F(HosServiceTest, OnePlaceholderThatFailsDoesNotStopTheNotification) {
  platform().FailCall("KLIBCSzHashSetValue", 2);
  HosService::notify("the_tag", {{"%A%", "1"}, {"%B%", "2%s"}, {"%C%", "3"}});
  EXPECT_THAT(platform().notifications,
              ElementsAre(fake_hos::Notification{"the_tag", {{"%A%", "1"}, {"%C%", "3"}}}));
  EXPECT_THAT(Log(), ElementsAre("hos_service Failed to set notify param: %B% => 2%s"));
}

TEST_F(HosServiceTest, WithoutMemoryNothingIsSent) {
  platform().FailNext("KLIBCSzHashAlloc");
  HosService::notify("the_tag", {{"%A%", "1"}});
  EXPECT_THAT(platform().notifications, IsEmpty());
  EXPECT_EQ(platform().call_count("KIVOSysNotifySendNotifiction"), 0U);
  EXPECT_THAT(Log(), ElementsAre("hos_service Failed to notify: out of memory"));
}

TEST_F(HosServiceTest, ANotificationThatCannotBeSentIsLogged) {
  SetLastErrorCode(77);
  platform().FailNext("KIVOSysNotifySendNotifiction");
  HosService::notify("the_tag", {});
  EXPECT_THAT(Log(),
              ElementsAre("hos_service Failed to send notify by KIVOSysNotifySendNotifiction"));
  EXPECT_EQ(LastErrorCode(), 77U);
}

}  // namespace
}  // namespace nodelink
