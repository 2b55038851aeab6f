// What needs no server; the requests themselves are tested against one.
#include "kivo/cloudservice.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>

#include "klibc/error.h"
#include "lab/files.h"

namespace {

constexpr char kKeyFile[] = "/usr/kivo/etc/cloudservice/api_key";
constexpr char kFacts[] = "/etc.defaults/kivoinfo.conf";
constexpr int kNetwork = 1;
constexpr int kLocal = 3;

class CloudService : public testing::Test {
 protected:
  void SetUp() override {
    test_files::Remove("/usr/kivo/etc/cloudservice");
    GiveUrl("https://127.0.0.1:1");
  }

  static void GiveUrl(const std::string& url) {
    test_files::Write(kFacts,
                      "serial_number=\"S\"\nmac_address=\"02:00:00:00:00:01\"\n"
                      "cloudservice_url=\"" +
                          url + "\"\n");
  }

  char key_[1024] = "untouched";
};

TEST_F(CloudService, WhereNobodyListensTheNetworkFailed) {
  EXPECT_LT(KIVOCloudServiceGetApiKey(key_, 1), 0);
  EXPECT_EQ(KIVOCloudServiceGetErrorCode(), kNetwork);
  EXPECT_STREQ(KLIBCErrorGetFile(), "cloudservice.cpp");
  EXPECT_STREQ(key_, "untouched");
  EXPECT_FALSE(test_files::Exists(kKeyFile));
}

TEST_F(CloudService, OnlyHttpsIsSpoken) {
  for (const char* url : {"http://127.0.0.1:1", "file:///etc/passwd?", "gopher://127.0.0.1", "%"}) {
    GiveUrl(url);
    EXPECT_LT(KIVOCloudServiceRegisterApiKey(key_), 0) << url;
    EXPECT_EQ(KIVOCloudServiceGetErrorCode(), kLocal) << url;
  }
}

TEST_F(CloudService, ADeviceWithoutFactsCannotAsk) {
  test_files::Write(kFacts, "");
  EXPECT_LT(KIVOCloudServiceRegisterApiKey(key_), 0);
  EXPECT_EQ(KIVOCloudServiceGetErrorCode(), kLocal);
}

TEST_F(CloudService, AFileWithoutAUsableKeyIsAsGoodAsNone) {
  for (const std::string text : {"", "\n", "two words\n", "tab\t\n", "ctrl\x01\n", "\xc3\xbc\n"}) {
    test_files::Write(kKeyFile, text, 0600);
    EXPECT_LT(KIVOCloudServiceGetApiKey(key_, 1), 0) << text;
    EXPECT_EQ(KIVOCloudServiceGetErrorCode(), kNetwork) << text;
    EXPECT_EQ(test_files::Read(kKeyFile), text);
  }
  test_files::Write(kKeyFile, std::string(1500, 'k'), 0600);
  EXPECT_LT(KIVOCloudServiceGetApiKey(key_, 1), 0);
  EXPECT_EQ(KIVOCloudServiceGetErrorCode(), kNetwork);
}

TEST_F(CloudService, TheLongestKeyFitsTheBuffer) {
  const std::string longest(1023, 'k');
  test_files::Write(kKeyFile, longest + "\n", 0600);
  EXPECT_GE(KIVOCloudServiceGetApiKey(key_, 1), 0);
  EXPECT_EQ(key_, longest);
}

TEST_F(CloudService, AKeyFileThatCannotBeReadIsALocalFailure) {
  test_files::MakeFolder(kKeyFile);
  EXPECT_LT(KIVOCloudServiceGetApiKey(key_, 1), 0);
  EXPECT_EQ(KIVOCloudServiceGetErrorCode(), kLocal);
}

TEST_F(CloudService, DroppingNeedsNoStoredKey) {
  EXPECT_GE(KIVOCloudServiceActionHandler(2), 0);
  test_files::Write(kKeyFile, "key\n", 0600);
  EXPECT_GE(KIVOCloudServiceActionHandler(2), 0);
  EXPECT_FALSE(test_files::Exists(kKeyFile));
  EXPECT_LT(KIVOCloudServiceActionHandler(7), 0);
  EXPECT_EQ(KIVOCloudServiceGetErrorCode(), kLocal);
}

}  // namespace
