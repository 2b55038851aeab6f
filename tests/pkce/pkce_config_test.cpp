#include "pkce/pkce_config.h"

#include <filesystem>
#include <string>

#include "core/error_code.h"
#include "core/json.h"
#include "core/zomi_exception.h"
#include "tests/support/session_fixture.h"

namespace nodelink {
namespace {

using session::Catch;
using session::NamedText;
using session::Thrown;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr char kPath[] = "/tmp/client.conf";

Json::Value Parse(const std::string& text) {
  Json::Value value;
  EXPECT_TRUE(json::fromString(text, value)) << text;
  return value;
}

class PkceConfigTest : public SessionTest {
 protected:
  // The configuration made of the JSON text `raw`.
  static Json::Value Build(const std::string& raw) { return BuildPkceConfig(Parse(raw)); }

  static std::string ScopeOf(const std::string& scope) {
    Json::Value raw(Json::objectValue);
    raw["scope"] = scope;
    return BuildPkceConfig(raw)["scope"].asString();
  }
};

// --- the finished configuration -------------------------------------------------------------

TEST_F(PkceConfigTest, HasExactlyTheMembersOfAClient) {
  EXPECT_EQ(json::toString(LoadPkceLoginConfig()),
            R"({"audience":"the-audience",)"
            R"("auth_endpoint":"https://identity.veltrix.example/oauth2/authorize",)"
            R"("client_id":"login-client",)"
            R"("end_session_endpoint":"https://identity.veltrix.example/oauth2/end",)"
            R"("login_redirect_uri":"https://account.veltrix.example/login/back",)"
            R"("logout_redirect_uri":"https://account.veltrix.example/logout/back",)"
            R"("scope":"openid sn:FAKE123456789 mac:02:11:22:33:44:55",)"
            R"("token_endpoint":"https://identity.veltrix.example/oauth2/token"})");
}

TEST_F(PkceConfigTest, WhatTheFileHasBesidesIsDropped) {
  const Json::Value config = Build(R"({"client_secret":"s","token_endpoint":"https://evil"})");
  EXPECT_FALSE(config.isMember("client_secret"));
  EXPECT_EQ(config["token_endpoint"], session::kIdentity);
  EXPECT_EQ(config.size(), 8U);
}

TEST_F(PkceConfigTest, AMissingMemberIsEmptyAndAMissingPathTheBareHost) {
  EXPECT_EQ(json::toString(Build("{}")),
            R"({"audience":"","auth_endpoint":"https://identity.veltrix.example",)"
            R"("client_id":"","end_session_endpoint":"https://identity.veltrix.example",)"
            R"("login_redirect_uri":"https://account.veltrix.example",)"
            R"("logout_redirect_uri":"https://account.veltrix.example","scope":"",)"
            R"("token_endpoint":"https://identity.veltrix.example"})");
}

TEST_F(PkceConfigTest, HostAndPathAreJoinedAsTheyStand) {
  const Json::Value config =
      Build(R"({"token_endpoint_path":"no/slash","auth_endpoint_path":"//two?a=b c"})");
  EXPECT_EQ(config["token_endpoint"], "https://identity.veltrix.exampleno/slash");
  EXPECT_EQ(config["auth_endpoint"], "https://identity.veltrix.example//two?a=b c");
}

TEST_F(PkceConfigTest, UserDefinedHostsTakePrecedence) {
  WriteRecord("account_host=\"https://mine:8443\"\nidentity_host=\"https://id.mine\"\n");
  const Json::Value config = LoadPkceLoginConfig();
  EXPECT_EQ(config["login_redirect_uri"], "https://mine:8443/login/back");
  EXPECT_EQ(config["token_endpoint"], "https://id.mine/oauth2/token");
}

TEST_F(PkceConfigTest, ADeviceOnTheTestServersUsesTheirHosts) {
  test_files::Write("/etc.defaults/kivoinfo.conf", "kivopkg_server=\"test\"\n");
  const Json::Value config = LoadPkceLoginConfig();
  EXPECT_EQ(config["login_redirect_uri"], "https://account.test.veltrix.example/login/back");
  EXPECT_EQ(config["token_endpoint"], "https://identity.test.veltrix.example/oauth2/token");
}

TEST_F(PkceConfigTest, NumbersAndFlagsReadAsTheirText) {
  const Json::Value config = Build(R"({"client_id":17,"audience":true})");
  EXPECT_EQ(config["client_id"], "17");
  EXPECT_EQ(config["audience"], "true");
}

class PkceConfigTypeTest : public PkceConfigTest, public testing::WithParamInterface<NamedText> {};

TEST_P(PkceConfigTypeTest, AMemberThatIsNoTextIsEmpty) {
  const Json::Value config =
      Build(R"({"client_id":)" + GetParam().text + R"(,"scope":)" + GetParam().text +
            R"(,"token_endpoint_path":)" + GetParam().text + "}");
  EXPECT_EQ(config["client_id"], "");
  EXPECT_EQ(config["scope"], "");
  EXPECT_EQ(config["token_endpoint"], session::kIdentity);
}

INSTANTIATE_TEST_SUITE_P(All, PkceConfigTypeTest, testing::ValuesIn(session::JsonThatIsNoText()),
                         session::NameOf);

class PkceConfigShapeTest : public PkceConfigTest, public testing::WithParamInterface<NamedText> {};

TEST_P(PkceConfigShapeTest, WhatIsNoObjectHasNoMembers) {
  EXPECT_EQ(Build(GetParam().text), Build("{}"));
}

INSTANTIATE_TEST_SUITE_P(All, PkceConfigShapeTest, testing::ValuesIn(session::JsonThatIsNoObject()),
                         session::NameOf);

// --- the scope ------------------------------------------------------------------------------

TEST_F(PkceConfigTest, MarkersBecomeTheDevicesFacts) {
  EXPECT_EQ(ScopeOf("a $ b=$sn$,c:$mac$; d  e"), "a $ b=FAKE123456789,c:02:11:22:33:44:55; d  e");
}

TEST_F(PkceConfigTest, EveryMarkerIsReplaced) {
  EXPECT_EQ(ScopeOf("$sn$$sn$ $mac$ $sn$ $mac$"),
            "FAKE123456789FAKE123456789 02:11:22:33:44:55 FAKE123456789 02:11:22:33:44:55");
}

TEST_F(PkceConfigTest, MarkersAreWholeAndInLowerCase) {
  const std::string scope = "$SN$ $Sn$ $sn $mac sn$ $MAC$ $ sn$ $$";
  EXPECT_EQ(ScopeOf(scope), scope);
}

TEST_F(PkceConfigTest, AMarkerInTheSerialNumberIsNoMarkerAgain) {
  platform().device.serial_number = "A$sn$B";
  EXPECT_EQ(ScopeOf("$sn$"), "A$sn$B");
}

TEST_F(PkceConfigTest, SerialNumbersAreReplacedBeforeMacAddresses) {
  platform().device.serial_number = "A$mac$B";
  EXPECT_EQ(ScopeOf("$sn$"), "A02:11:22:33:44:55B");
  platform().device.mac_address = "$sn$";
  EXPECT_EQ(ScopeOf("$mac$"), "$sn$");
}

TEST_F(PkceConfigTest, AsksForSerialNumberMacAddressAccountHostAndIdentityHostInThisOrder) {
  (void)Build(R"({"scope":"no markers"})");
  std::vector<std::string> asked;
  for (const fake_hos::Call& call : platform().calls()) {
    asked.push_back(call.name == "KLIBCFileGetKeyValue" ? call.args[1] : call.ToText());
  }
  EXPECT_THAT(asked,
              ElementsAre("KLIBGetSerialNumber(36)", "KIVOHsinfoCloudServiceGetMacAddress(24)",
                          "account_host", "kivopkg_server", "identity_host", "kivopkg_server"));
}

TEST_F(PkceConfigTest, WithoutASerialNumberThereIsNoConfigurationMarkersOrNot) {
  platform().FailNext("KLIBGetSerialNumber");
  EXPECT_EQ(Catch([] { (void)Build(R"({"scope":"plain"})"); }), (Thrown{8, "System error"}));
  EXPECT_THAT(CallNames(), ElementsAre("KLIBGetSerialNumber"));
}

TEST_F(PkceConfigTest, WithoutAMacAddressThereIsNoConfigurationMarkersOrNot) {
  platform().device.mac_address.reset();
  EXPECT_EQ(Catch([] { (void)Build("{}"); }), (Thrown{20, "System error"}));
}

// --- the files ------------------------------------------------------------------------------

TEST_F(PkceConfigTest, TheTwoClientsHaveTheirOwnFiles) {
  EXPECT_STREQ(kPkceLoginConfigPath, session::kLoginConfigPath);
  EXPECT_STREQ(kPkceRegisterConfigPath, session::kRegisterConfigPath);
  test_files::Write(session::kRegisterConfigPath, R"({"client_id":"register-client"})");
  EXPECT_EQ(LoadPkceRegisterConfig()["client_id"], "register-client");
  EXPECT_EQ(LoadPkceLoginConfig()["client_id"], "login-client");
}

TEST_F(PkceConfigTest, AMissingFileIsWrongJson) {
  EXPECT_EQ(Catch([] { (void)LoadPkceConfig("/tmp/missing"); }), (Thrown{2, "Wrong JSON format"}));
  EXPECT_THAT(Log(), IsEmpty());
  EXPECT_THAT(CallNames(), IsEmpty());
}

TEST_F(PkceConfigTest, AFolderIsWrongJson) {
  EXPECT_EQ(Catch([] { (void)LoadPkceConfig("/tmp"); }).code, kWrongJsonFormat);
}

class PkceConfigBrokenFileTest : public PkceConfigTest,
                                 public testing::WithParamInterface<NamedText> {};

TEST_P(PkceConfigBrokenFileTest, IsWrongJson) {
  test_files::Write(kPath, GetParam().text);
  EXPECT_EQ(Catch([] { (void)LoadPkceConfig(kPath); }), (Thrown{2, "Wrong JSON format"}));
  EXPECT_THAT(Log(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(All, PkceConfigBrokenFileTest,
                         testing::ValuesIn(session::TextsThatAreNoJson()), session::NameOf);

// --- the login client's id ------------------------------------------------------------------

TEST_F(PkceConfigTest, LoginClientIdIsTheLoginConfigurations) {
  EXPECT_EQ(GetLoginClientId(), "login-client");
}

TEST_F(PkceConfigTest, LoginClientIdIsEmptyWhenTheFileHasNone) {
  test_files::Write(session::kLoginConfigPath, "[]");
  EXPECT_EQ(GetLoginClientId(), "");
}

TEST_F(PkceConfigTest, LoginClientIdFailsAsTheConfigurationDoes) {
  platform().FailNext("KLIBGetSerialNumber");
  EXPECT_EQ(Catch([] { (void)GetLoginClientId(); }).code, kNoSerialNumber);
  platform().FailNext("KIVOHsinfoCloudServiceGetMacAddress");
  EXPECT_EQ(Catch([] { (void)GetLoginClientId(); }).code, kNoMacAddress);
  std::filesystem::remove(session::kLoginConfigPath);
  EXPECT_EQ(Catch([] { (void)GetLoginClientId(); }).code, kWrongJsonFormat);
}

// --- what the system ships ------------------------------------------------------------------

class ShippedPkceConfigTest : public PlatformTest {};

TEST_F(ShippedPkceConfigTest, BothFilesMakeWholeConfigurations) {
  for (const Json::Value& config : {LoadPkceLoginConfig(), LoadPkceRegisterConfig()}) {
    for (const std::string& name : config.getMemberNames()) {
      EXPECT_NE(config[name], "") << name;
    }
    EXPECT_EQ(config["scope"].asString().find('$'), std::string::npos);
    EXPECT_EQ(config["token_endpoint"], "https://identity.veltrix.example/oauth2/v1/token");
  }
}

}  // namespace
}  // namespace nodelink
