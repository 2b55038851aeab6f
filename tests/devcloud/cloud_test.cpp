#include "devcloud/cloud.h"

#include "devcloud/state/state_folder.h"
#include "tests/devcloud/cloud_fixture.h"
#include "tests/devcloud/temporary_folder.h"

namespace devcloud_test {
namespace {

constexpr char kQuery[] = "/device/api/user/query";
constexpr char kRegister[] = "/cloudservice/api/v1/apikey/register";

TEST_F(CloudTest, UnknownPathsAndMethods) {
  EXPECT_EQ(PostForm("/nothing", {}).status, 404);
  const ClientAnswer answer = client_.Send({.url = Url(kQuery)});
  EXPECT_EQ(answer.status, 405);
  EXPECT_EQ(answer.Header("Allow"), "POST");
}

TEST_F(CloudTest, AFaultWithAStatusReplacesTheAnswer) {
  cloud_.faults().Add({.path = kRegister, .count = 1, .status = 503, .body = "later"});
  const ClientAnswer answer = PostForm(kRegister, {{"serial_no", "NL2"}, {"mac", kMac}});
  EXPECT_EQ(answer.status, 503);
  EXPECT_EQ(answer.body, "later");
  EXPECT_FALSE(cloud_.store().FindDevice("NL2"));
  EXPECT_EQ(PostForm(kRegister, {{"serial_no", "NL2"}, {"mac", kMac}}).status, 200);
}

TEST_F(CloudTest, AFaultWithoutAStatusLosesTheAnswerOnly) {
  cloud_.faults().Add(
      {.path = kRegister, .count = 1, .fault = {.delivery = devcloud::Delivery::kDrop}});
  EXPECT_NE(PostForm(kRegister, {{"serial_no", "NL2"}, {"mac", kMac}}).result, CURLE_OK);
  EXPECT_TRUE(cloud_.store().FindDevice("NL2"));
}

TEST_F(CloudTest, EveryRequestIsLogged) {
  (void)PostForm(kRegister, {{"serial_no", "NL2"}, {"mac", kMac}});
  cloud_.faults().Add({.path = "/x", .status = 418});
  (void)PostForm("/x", {});
  const auto entries = cloud_.log().Read();
  ASSERT_EQ(entries.size(), 2U);
  EXPECT_EQ(entries[0].request.body, "serial_no=NL2&mac=02%3A00%3A5e%3A10%3A00%3A01");
  EXPECT_EQ(entries[0].request.HeaderOr("Accept"), "*/*");
  EXPECT_EQ(entries[0].status, 200);
  EXPECT_FALSE(entries[0].fault);
  EXPECT_EQ(entries[1].status, 418);
  EXPECT_TRUE(entries[1].fault);
  EXPECT_EQ(cloud_.log().Read(entries[0].id).size(), 1U);
  EXPECT_EQ(cloud_.log().Read(0, kRegister).size(), 1U);
}

TEST_F(CloudTest, TheCertificateCanBeSwitched) {
  cloud_.SetTls({.certificate = devcloud::CertificateKind::kExpired});
  HttpClient fresh(cloud_.authority().certificate_pem());
  EXPECT_EQ(fresh.Send({.url = Url("/")}).result, CURLE_PEER_FAILED_VERIFICATION);
  cloud_.SetTls({});
  EXPECT_EQ(fresh.Send({.url = Url("/")}).result, CURLE_OK);
}

TEST(CloudStateTest, IsKeptBetweenRuns) {
  const TemporaryFolder folder;
  std::string authority;
  std::string key;
  {
    devcloud::Cloud cloud({.state_folder = folder.path()});
    authority = cloud.authority().certificate_pem();
    devcloud::Account account{.email = kEmail};
    EXPECT_TRUE(cloud.store().AddAccount(account, kPassword));
    key = devcloud::LoadOrMakeSigningKey(folder.path());
  }
  devcloud::Cloud cloud({.state_folder = folder.path()});
  EXPECT_EQ(cloud.authority().certificate_pem(), authority);
  EXPECT_TRUE(cloud.store().FindAccountByEmail(kEmail));
  EXPECT_EQ(devcloud::LoadOrMakeSigningKey(folder.path()), key);
}

TEST(CloudStateTest, KeyFilesArePrivate) {
  const TemporaryFolder folder;
  (void)devcloud::LoadOrMakeAuthority(folder.path());
  (void)devcloud::LoadOrMakeSigningKey(folder.path());
  for (const char* name : {"/ca.key", "/id_token.key"}) {
    EXPECT_EQ(std::filesystem::status(folder.path() + name).permissions(),
              std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
  }
}

TEST(CloudStateTest, BrokenStateIsAnErrorNotACrash) {
  const TemporaryFolder folder;
  folder.Write("ca.pem", "rubbish");
  folder.Write("ca.key", "rubbish");
  EXPECT_THROW(devcloud::Cloud({.state_folder = folder.path()}), std::runtime_error);
  EXPECT_THROW(devcloud::Cloud({.state_folder = "/no/such/folder"}), std::runtime_error);
}

TEST(CloudStateTest, TheControlPortStaysOnThisMachine) {
  EXPECT_THROW(devcloud::Cloud({.control_address = "0.0.0.0"}), std::runtime_error);
}

}  // namespace
}  // namespace devcloud_test
