// The modules that send requests, when an installation has lost one.
#include <filesystem>

#include "e2e/device_test.h"

namespace {

using testing::AllOf;
using testing::Contains;
using testing::HasSubstr;
using testing::StartsWith;

constexpr char kHttpModule[] = "/usr/kivo/lib/nodelink_http.so";
constexpr char kCloudModule[] = "/usr/kivo/lib/kivo_cloudservice.so";

class Module : public DeviceTest {
 protected:
  void LinkByPassword() {
    ASSERT_EQ(LogIn({"--password", kEmail}, kPassword + std::string("\n")).exit_status, 0);
    SetLastQueryAge(3600);
  }
};

TEST_F(Module, WithoutTheHttpModuleARequestIsNotSentAndTheLogSaysWhy) {
  LinkByPassword();
  std::filesystem::remove(kHttpModule);
  const std::string record = test_files::Read(kRecord);
  EXPECT_EQ(Run({"--query_account"}).out, "Query account failed");
  EXPECT_EQ(Run({"--report_info"}).exit_status, 255);
  EXPECT_EQ(test_files::Read(kRecord), record);
  EXPECT_THAT(Log(), Contains(AllOf(StartsWith("http_loader Failed to load the HTTP module: "),
                                    HasSubstr(kHttpModule))));
}

TEST_F(Module, WithoutTheHttpModuleALogoutKeepsTheAccount) {
  LinkByPassword();
  std::filesystem::remove(kHttpModule);
  EXPECT_THAT(Run({"--logout"}).out, StartsWith("Failed to logout: "));
  EXPECT_TRUE(test_files::Exists(kRecord));
}

TEST_F(Module, OfAnotherMakeIsNotCalled) {
  LinkByPassword();
  std::filesystem::copy_file(kCloudModule, kHttpModule,
                             std::filesystem::copy_options::overwrite_existing);
  EXPECT_EQ(Run({"--query_account"}).out, "Query account failed");
  EXPECT_THAT(Log(), Contains(AllOf(StartsWith("http_loader Failed to load the HTTP module: "),
                                    HasSubstr("undefined symbol"))));
}

TEST_F(Module, WithoutTheCloudServiceModuleNoApiKeyIsRegistered) {
  std::filesystem::remove(kCloudModule);
  const auto result = LogIn({"--password", kEmail}, kPassword + std::string("\n"));
  EXPECT_EQ(result.exit_status, 1);
  EXPECT_THAT(result.err, StartsWith("nodelink-login: "));
  EXPECT_FALSE(test_files::Exists(kRecord));
  EXPECT_FALSE(test_files::Exists("/usr/kivo/etc/cloudservice/api_key"));
}

}  // namespace
