// What the platform's headers promise, whichever platform is linked.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <json/value.h>
#include <sodium.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "kivo/cloudservice.h"
#include "kivo/crond.h"
#include "kivo/log.h"
#include "kivo/pkce.h"
#include "kivo/scemd.h"
#include "kivo/sysnotify.h"
#include "kivo/zone.h"
#include "klib/device.h"
#include "klib/plugin.h"
#include "klibc/error.h"
#include "klibc/exec.h"
#include "klibc/filelock.h"
#include "klibc/keyvalue.h"
#include "klibc/string.h"
#include "klibc/szhash.h"
#include "klibc/szlist.h"
#include "lab/files.h"
#include "tests/hos/platform_facts.h"

namespace {

namespace facts = platform_facts;

constexpr char kLineFormat[] = "%s=\"%s\"\n";
constexpr char kFile[] = "/tmp/contract/record.conf";
constexpr int kSize = 256;

using Hash = std::unique_ptr<KLIBCSZHASH, void (*)(KLIBCSZHASH*)>;
using List = std::unique_ptr<KLIBCSZLIST, void (*)(KLIBCSZLIST*)>;

Hash NewHash() { return {KLIBCSzHashAlloc(1024), KLIBCSzHashFree}; }
List NewList() { return {KLIBCSzListAlloc(512), KLIBCSzListFree}; }

std::vector<std::string> TextsOf(const List& list) {
  std::vector<std::string> texts;
  for (int i = 0; const char* text = KLIBCSzListGet(list.get(), i); ++i) texts.emplace_back(text);
  return texts;
}

class PlatformContract : public testing::Test {
 protected:
  void SetUp() override {
    facts::GiveFacts();
    test_files::Remove("/tmp/contract");
    test_files::MakeFolder("/tmp/contract", 0700);
  }

  static std::string Get(const std::string& key) {
    char buffer[kSize] = "old";
    const int length = KLIBCFileGetKeyValue(kFile, key.c_str(), buffer, kSize, 0);
    EXPECT_EQ(length, static_cast<int>(std::strlen(buffer)));
    return buffer;
  }

  static int Set(const std::string& key, const std::string& value) {
    return KLIBCFileSetKeyValue(kFile, key.c_str(), value.c_str(), kLineFormat);
  }
};

// --- Error triple

TEST_F(PlatformContract, AFailureSetsTheErrorTripleAndASuccessLeavesItAlone) {
  char buffer[kSize];
  ASSERT_LT(KLIBGetSerialNumber(nullptr, 0), 0);
  const int code = KLIBCErrGet();
  const std::string file = KLIBCErrorGetFile();
  EXPECT_NE(code, 0);
  EXPECT_NE(file, "");
  EXPECT_EQ(file.find('/'), std::string::npos);
  EXPECT_GT(KLIBCErrorGetLine(), 0);
  const int line = KLIBCErrorGetLine();

  ASSERT_GE(KLIBGetSerialNumber(buffer, kSize), 0);
  EXPECT_EQ(KLIBCFileGetKeyValue("/tmp/contract/none", "key", buffer, kSize, 0), 0);
  EXPECT_EQ(KLIBCErrGet(), code);
  EXPECT_EQ(KLIBCErrorGetFile(), file);
  EXPECT_EQ(KLIBCErrorGetLine(), line);
}

// --- Key-value files

TEST_F(PlatformContract, AMissingFileKeyOrValueReadsAsNothing) {
  EXPECT_EQ(Get("key"), "");
  test_files::Write(kFile, "empty=\"\"\nother=\"x\"\n");
  EXPECT_EQ(Get("key"), "");
  EXPECT_EQ(Get("empty"), "");
}

TEST_F(PlatformContract, ReadsQuotedAndPlainValuesAndTheFirstOfTwoLines) {
  test_files::Write(kFile,
                    "# quoted=\"comment\"\n"
                    "\n"
                    "quoted=\"a \"b\" c\" rest\n"
                    "  spaced  =  plain words \t\n"
                    "windows=\"line\"\r\n"
                    "inside=\"line\r\"\n"
                    "no separator\n"
                    "quoted=\"second\"\n"
                    "equals=a=b\n"
                    "last=end");
  EXPECT_EQ(Get("quoted"), "a \"b\" c");
  EXPECT_EQ(Get("spaced"), "plain words");
  EXPECT_EQ(Get("windows"), "line");
  EXPECT_EQ(Get("inside"), "line\r");
  EXPECT_EQ(Get("equals"), "a=b");
  EXPECT_EQ(Get("last"), "end");
  EXPECT_EQ(Get("# quoted"), "");
  EXPECT_EQ(Get("quote"), "");
}

TEST_F(PlatformContract, CutsALongValueAtTheBuffer) {
  test_files::Write(kFile, "key=\"0123456789\"\n");
  char buffer[5] = "";
  EXPECT_EQ(KLIBCFileGetKeyValue(kFile, "key", buffer, sizeof buffer, 0), 4);
  EXPECT_STREQ(buffer, "0123");
  EXPECT_EQ(KLIBCFileGetKeyValue(kFile, "key", buffer, 1, 0), 0);
  EXPECT_STREQ(buffer, "");
}

TEST_F(PlatformContract, ReadingFailsOnNullArgumentsNoRoomAndWhatIsNoFile) {
  char buffer[kSize];
  EXPECT_LT(KLIBCFileGetKeyValue(nullptr, "key", buffer, kSize, 0), 0);
  EXPECT_LT(KLIBCFileGetKeyValue(kFile, nullptr, buffer, kSize, 0), 0);
  EXPECT_LT(KLIBCFileGetKeyValue(kFile, "key", nullptr, kSize, 0), 0);
  EXPECT_LT(KLIBCFileGetKeyValue(kFile, "key", buffer, 0, 0), 0);
  EXPECT_LT(KLIBCFileGetKeyValue("/tmp/contract", "key", buffer, kSize, 0), 0);
  EXPECT_LT(KLIBCFileCheckKeyValue("/tmp/contract", "key", "value", 0), 0);
}

TEST_F(PlatformContract, AWrittenValueReadsBackAsItIs) {
  for (const std::string value :
       {"plain", "", "two words", " ends ", "a\"b", "\"", "\"quoted\"", "a=b", "# no comment",
        "100%", "%s%n", "tab\there", "\r", "\xc3\xbc", "\\n"}) {
    EXPECT_GE(Set("key", value), 0) << value;
    EXPECT_EQ(Get("key"), value);
    EXPECT_EQ(KLIBCFileCheckKeyValue(kFile, "key", value.c_str(), 0), 1) << value;
  }
}

TEST_F(PlatformContract, WritingReplacesTheFirstLineOfTheKeyAndKeepsTheRest) {
  test_files::Write(kFile, "# head\n\na=\"1\"\nb=two\nb=\"again\"\nc=\"3\"");
  EXPECT_GE(Set("b", "2"), 0);
  EXPECT_GE(Set("d", "4"), 0);
  EXPECT_EQ(test_files::Read(kFile), "# head\n\na=\"1\"\nb=\"2\"\nb=\"again\"\nc=\"3\"\nd=\"4\"\n");
}

TEST_F(PlatformContract, ANewFileIsPrivateAndAnOldOneKeepsItsMode) {
  ASSERT_GE(Set("key", "1"), 0);
  EXPECT_EQ(test_files::ModeOf(kFile), 0600U);
  ASSERT_EQ(chmod(kFile, 0640), 0);
  ASSERT_GE(Set("key", "2"), 0);
  EXPECT_EQ(test_files::ModeOf(kFile), 0640U);
}

TEST_F(PlatformContract, RefusesWhatWouldNotReadBackAndLeavesTheFile) {
  const std::string before = "key=\"old\"\n";
  test_files::Write(kFile, before);
  EXPECT_LT(Set("", "v"), 0);
  EXPECT_LT(Set("#key", "v"), 0);
  EXPECT_LT(Set("k=y", "v"), 0);
  EXPECT_LT(Set(" key", "v"), 0);
  EXPECT_LT(Set("key\t", "v"), 0);
  EXPECT_LT(Set("k\ny", "v"), 0);
  EXPECT_LT(Set("key", "v\nhs_auth_key=\"stolen"), 0);
  EXPECT_LT(Set("key", "v\n"), 0);
  EXPECT_LT(KLIBCFileSetKeyValue(kFile, "key", " v ", "%s=%s\n"), 0);
  for (const char* format : {"%s=\"%s\"", "%s=\"%n\"\n", "%s\n", "%s=\"%s%s\"\n", "%", ""}) {
    EXPECT_LT(KLIBCFileSetKeyValue(kFile, "key", "v", format), 0) << format;
  }
  EXPECT_EQ(test_files::Read(kFile), before);
}

TEST_F(PlatformContract, WritingFailsOnNullArgumentsMissingFoldersAndWhatIsNoFile) {
  EXPECT_LT(KLIBCFileSetKeyValue(nullptr, "key", "v", kLineFormat), 0);
  EXPECT_LT(KLIBCFileSetKeyValue(kFile, nullptr, "v", kLineFormat), 0);
  EXPECT_LT(KLIBCFileSetKeyValue(kFile, "key", nullptr, kLineFormat), 0);
  EXPECT_LT(KLIBCFileSetKeyValue(kFile, "key", "v", nullptr), 0);
  EXPECT_LT(KLIBCFileSetKeyValue("/tmp/contract/none/f", "key", "v", kLineFormat), 0);
  EXPECT_LT(KLIBCFileSetKeyValue("/tmp/contract", "key", "v", kLineFormat), 0);
}

TEST_F(PlatformContract, WritingDoesNotFollowASymbolicLink) {
  const std::string target = "/tmp/contract/target";
  test_files::Write(target, "key=\"old\"\n");
  ASSERT_EQ(symlink(target.c_str(), kFile), 0);
  EXPECT_LT(Set("key", "new"), 0);
  EXPECT_EQ(test_files::Read(target), "key=\"old\"\n");
}

TEST_F(PlatformContract, CheckTellsTheExactValue) {
  test_files::Write(kFile, "key=\"yes\"\nempty=\"\"\n");
  EXPECT_EQ(KLIBCFileCheckKeyValue(kFile, "key", "yes", 0), 1);
  EXPECT_EQ(KLIBCFileCheckKeyValue(kFile, "key", "YES", 0), 0);
  EXPECT_EQ(KLIBCFileCheckKeyValue(kFile, "key", "yes!", 0), 0);
  EXPECT_EQ(KLIBCFileCheckKeyValue(kFile, "empty", "", 0), 1);
  EXPECT_EQ(KLIBCFileCheckKeyValue(kFile, "none", "", 0), 0);
  EXPECT_EQ(KLIBCFileCheckKeyValue("/tmp/contract/none", "key", "yes", 0), 0);
  EXPECT_LT(KLIBCFileCheckKeyValue(nullptr, "key", "yes", 0), 0);
}

TEST_F(PlatformContract, GetKeysFillsTheHashWithWhatIsThere) {
  test_files::Write(kFile, "a=\"1\"\nempty=\"\"\nc: \"3\"\n");
  const List keys = NewList();
  for (const char* key : {"a", "none", "empty"}) KLIBCSzListPush(keys.get(), key);
  const Hash values = NewHash();
  EXPECT_EQ(KLIBCFileGetKeys(kFile, keys.get(), values.get(), "="), 2);
  EXPECT_STREQ(KLIBCSzHashGetValue(values.get(), "a"), "1");
  EXPECT_STREQ(KLIBCSzHashGetValue(values.get(), "empty"), "");
  EXPECT_EQ(KLIBCSzHashGetValue(values.get(), "none"), nullptr);

  KLIBCSzListPush(keys.get(), "c");
  EXPECT_EQ(KLIBCFileGetKeys(kFile, keys.get(), values.get(), ": "), 1);
  EXPECT_STREQ(KLIBCSzHashGetValue(values.get(), "c"), "3");
}

TEST_F(PlatformContract, GetKeysFailsOnAMissingFileAndNullArguments) {
  const List keys = NewList();
  const Hash values = NewHash();
  EXPECT_LT(KLIBCFileGetKeys(kFile, keys.get(), values.get(), "="), 0);
  test_files::Write(kFile, "a=\"1\"\n");
  EXPECT_EQ(KLIBCFileGetKeys(kFile, keys.get(), values.get(), "="), 0);
  EXPECT_LT(KLIBCFileGetKeys(nullptr, keys.get(), values.get(), "="), 0);
  EXPECT_LT(KLIBCFileGetKeys(kFile, nullptr, values.get(), "="), 0);
  EXPECT_LT(KLIBCFileGetKeys(kFile, keys.get(), nullptr, "="), 0);
  EXPECT_LT(KLIBCFileGetKeys(kFile, keys.get(), values.get(), nullptr), 0);
}

// --- File lock

TEST_F(PlatformContract, OneHolderAtATime) {
  test_files::Write(kFile, "");
  int first = -1;
  int second = -7;
  ASSERT_NE(KLIBCFileLockByFile(kFile, 1, &first), 0);
  EXPECT_GE(first, 0);
  EXPECT_NE(fcntl(first, F_GETFD) & FD_CLOEXEC, 0);
  EXPECT_EQ(KLIBCFileLockByFile(kFile, 1, &second), 0);
  EXPECT_EQ(second, -7);
  EXPECT_NE(KLIBCFileUnlockByFile(first), 0);
  EXPECT_NE(KLIBCFileLockByFile(kFile, 1, &second), 0);
  EXPECT_NE(KLIBCFileUnlockByFile(second), 0);
  EXPECT_TRUE(test_files::Exists(kFile));
}

TEST_F(PlatformContract, LockingNeedsAnExistingFileAndFollowsNoLink) {
  int fd = -7;
  EXPECT_EQ(KLIBCFileLockByFile(kFile, 1, &fd), 0);
  EXPECT_EQ(KLIBCFileLockByFile(nullptr, 1, &fd), 0);
  test_files::Write("/tmp/contract/target", "");
  ASSERT_EQ(symlink("/tmp/contract/target", kFile), 0);
  EXPECT_EQ(KLIBCFileLockByFile(kFile, 1, &fd), 0);
  EXPECT_EQ(fd, -7);
  EXPECT_EQ(KLIBCFileUnlockByFile(-1), 0);
}

// --- Hash and list

TEST_F(PlatformContract, AHashOwnsCopiesAndListsKeysInTheOrderOfTheirFirstSetting) {
  const Hash hash = NewHash();
  ASSERT_NE(hash, nullptr);
  std::string value = "1";
  EXPECT_GE(KLIBCSzHashSetValue(hash.get(), "b", value.c_str()), 0);
  value = "changed";
  EXPECT_GE(KLIBCSzHashSetValue(hash.get(), "a", ""), 0);
  EXPECT_GE(KLIBCSzHashSetValue(hash.get(), "c", "3"), 0);
  EXPECT_STREQ(KLIBCSzHashGetValue(hash.get(), "b"), "1");
  EXPECT_GE(KLIBCSzHashSetValue(hash.get(), "b", "2"), 0);
  EXPECT_STREQ(KLIBCSzHashGetValue(hash.get(), "b"), "2");
  EXPECT_STREQ(KLIBCSzHashGetValue(hash.get(), "a"), "");
  EXPECT_EQ(KLIBCSzHashGetValue(hash.get(), "d"), nullptr);

  const List keys = NewList();
  EXPECT_EQ(KLIBCSzHashEnumKey(hash.get(), keys.get()), 3);
  EXPECT_EQ(TextsOf(keys), (std::vector<std::string>{"b", "a", "c"}));
}

TEST_F(PlatformContract, AValueStaysWhereItIsWhileOtherKeysAreSet) {
  const Hash hash = NewHash();
  KLIBCSzHashSetValue(hash.get(), "key", "value");
  const char* value = KLIBCSzHashGetValue(hash.get(), "key");
  for (int i = 0; i < 1000; ++i) {
    ASSERT_GE(KLIBCSzHashSetValue(hash.get(), std::to_string(i).c_str(), "x"), 0);
  }
  EXPECT_EQ(KLIBCSzHashGetValue(hash.get(), "key"), value);
  EXPECT_STREQ(value, "value");
}

TEST_F(PlatformContract, TheContainersTakeNoNull) {
  const Hash hash = NewHash();
  const List list = NewList();
  EXPECT_LT(KLIBCSzHashSetValue(nullptr, "k", "v"), 0);
  EXPECT_LT(KLIBCSzHashSetValue(hash.get(), nullptr, "v"), 0);
  EXPECT_LT(KLIBCSzHashSetValue(hash.get(), "k", nullptr), 0);
  EXPECT_EQ(KLIBCSzHashGetValue(nullptr, "k"), nullptr);
  EXPECT_EQ(KLIBCSzHashGetValue(hash.get(), nullptr), nullptr);
  EXPECT_LT(KLIBCSzHashEnumKey(nullptr, list.get()), 0);
  EXPECT_LT(KLIBCSzHashEnumKey(hash.get(), nullptr), 0);
  EXPECT_EQ(KLIBCSzHashEnumKey(hash.get(), list.get()), 0);
  EXPECT_LT(KLIBCSzListPush(nullptr, "t"), 0);
  EXPECT_LT(KLIBCSzListPush(list.get(), nullptr), 0);
  EXPECT_EQ(KLIBCSzListGet(nullptr, 0), nullptr);
  KLIBCSzHashFree(nullptr);
  KLIBCSzListFree(nullptr);
}

TEST_F(PlatformContract, AListCountsFromZero) {
  const List list = NewList();
  EXPECT_EQ(KLIBCSzListPush(list.get(), "a"), 0);
  EXPECT_EQ(KLIBCSzListPush(list.get(), "b"), 1);
  EXPECT_STREQ(KLIBCSzListGet(list.get(), 1), "b");
  EXPECT_EQ(KLIBCSzListGet(list.get(), 2), nullptr);
  EXPECT_EQ(KLIBCSzListGet(list.get(), -1), nullptr);
}

// --- Texts

TEST_F(PlatformContract, ConcatenationGrowsTheBlock) {
  std::size_t size = 4;
  char* block = static_cast<char*>(std::calloc(size, 1));
  std::string expected;
  for (int i = 0; i < 200; ++i) {
    ASSERT_GE(KLIBCStrCat(&block, &size, "piece,"), 0);
    expected += "piece,";
  }
  EXPECT_EQ(block, expected);
  EXPECT_GT(size, expected.size());
  EXPECT_LT(KLIBCStrCat(&block, &size, nullptr), 0);
  EXPECT_LT(KLIBCStrCat(nullptr, &size, "x"), 0);
  EXPECT_LT(KLIBCStrCat(&block, nullptr, "x"), 0);
  EXPECT_EQ(block, expected);
  std::free(block);
}

TEST_F(PlatformContract, TrimsWhiteSpaceInPlace) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {" \t\r\n{\"a\": 1} \n", "{\"a\": 1}"}, {"x", "x"}, {"", ""}, {" \n ", ""}, {"a b", "a b"}};
  for (const auto& [text, trimmed] : cases) {
    char buffer[kSize] = "";
    std::memcpy(buffer, text.c_str(), text.size() + 1);
    EXPECT_EQ(KLIBCStrTrimSpace(buffer), static_cast<int>(trimmed.size()));
    EXPECT_EQ(buffer, trimmed);
  }
  EXPECT_LT(KLIBCStrTrimSpace(nullptr), 0);
}

// --- Device

TEST_F(PlatformContract, KnowsTheDevice) {
  char buffer[kSize] = "";
  EXPECT_GE(KLIBGetSerialNumber(buffer, kSize), 0);
  EXPECT_STREQ(buffer, facts::kSerialNumber);
  EXPECT_GE(KLIBGetSerialNumber(buffer, 4), 0);
  EXPECT_STREQ(buffer, "NL0");
  EXPECT_GE(KIVOHsinfoCloudServiceGetMacAddress(buffer, kSize), 0);
  EXPECT_STREQ(buffer, facts::kMacAddress);
  EXPECT_GE(KLIBHsinfoUserAgentGet("zomi", buffer, kSize), 0);
  EXPECT_EQ(buffer, std::string("zomi ") + facts::kUserAgentTail);
  EXPECT_GE(KLIBHsinfoUserAgentGet("zomi", buffer, 6), 0);
  EXPECT_STREQ(buffer, "zomi ");
}

TEST_F(PlatformContract, ADeviceWithoutSerialNumberOrMacAddress) {
  facts::ForgetSerialNumberAndMacAddress();
  char buffer[kSize] = "";
  EXPECT_LT(KLIBGetSerialNumber(buffer, kSize), 0);
  EXPECT_LT(KIVOHsinfoCloudServiceGetMacAddress(buffer, kSize), 0);
  EXPECT_LT(KIVOHsinfoCloudServiceGetMacAddress(nullptr, kSize), 0);
  EXPECT_LT(KLIBHsinfoUserAgentGet("zomi", nullptr, kSize), 0);
  EXPECT_LT(KLIBHsinfoUserAgentGet("zomi", buffer, 0), 0);
}

TEST_F(PlatformContract, KnowsTheZone) {
  char buffer[kSize] = "";
  int needed = -1;
  EXPECT_GE(KIVOZoneGet(buffer, kSize, &needed), 0);
  EXPECT_STREQ(buffer, facts::kZone);
  EXPECT_EQ(needed, static_cast<int>(std::strlen(facts::kZone)) + 1);
  needed = -1;
  EXPECT_LT(KIVOZoneGet(buffer, 5, &needed), 0);
  EXPECT_EQ(needed, static_cast<int>(std::strlen(facts::kZone)) + 1);

  const Hash info = NewHash();
  EXPECT_GE(KIVOZoneGetInfo(facts::kZone, info.get()), 1);
  EXPECT_STREQ(KLIBCSzHashGetValue(info.get(), "nameInTZDB"), facts::kZone);
  const std::string offset = KLIBCSzHashGetValue(info.get(), "utcOffset");
  EXPECT_TRUE(offset == "3600" || offset == "7200") << offset;
}

TEST_F(PlatformContract, AnUnknownZone) {
  facts::ForgetZone();
  char buffer[kSize] = "";
  int needed = -1;
  EXPECT_LT(KIVOZoneGet(buffer, kSize, &needed), 0);
  EXPECT_EQ(needed, -1);
  const Hash info = NewHash();
  EXPECT_LT(KIVOZoneGetInfo("No/Where", info.get()), 1);
  EXPECT_LT(KIVOZoneGetInfo(nullptr, info.get()), 1);
  EXPECT_LT(KIVOZoneGetInfo(facts::kZone, nullptr), 1);
}

TEST_F(PlatformContract, AStatusItemThatIsNotPublishedIsZero) {
  int state = 2;
  EXPECT_EQ(KIVOScemdStatusGet(1, &state), 0);
  EXPECT_EQ(state, 0);
  facts::SetStatus(1, 2);
  EXPECT_EQ(KIVOScemdStatusGet(1, &state), 0);
  EXPECT_EQ(state, 2);
  EXPECT_EQ(KIVOScemdStatusGet(11, &state), 0);
  EXPECT_EQ(state, 0);
  EXPECT_EQ(KIVOScemdStatusGet(1, nullptr), -1);
}

// --- Plug-ins and programs

TEST_F(PlatformContract, AnEventWithoutPluginsSucceeds) {
  KLIBPLUGIN* handle = nullptr;
  ASSERT_GE(KLIBPluginSDKInit("zomi", "zomi/login", &handle, &handle), 0);
  EXPECT_NE(handle, nullptr);
  EXPECT_GE(KLIBPluginAction(4, handle), 0);
  EXPECT_GE(KLIBPluginExit(handle), 0);
}

TEST_F(PlatformContract, AFailingPluginFailsTheAction) {
  facts::MakePluginsFail();
  KLIBPLUGIN* handle = nullptr;
  ASSERT_GE(KLIBPluginSDKInit("zomi", "zomi/login", &handle, nullptr), 0);
  EXPECT_LT(KLIBPluginAction(5, handle), 0);
  EXPECT_GE(KLIBPluginExit(handle), 0);
}

TEST_F(PlatformContract, ThePluginCallsTakeNoNull) {
  KLIBPLUGIN* handle = nullptr;
  EXPECT_LT(KLIBPluginSDKInit(nullptr, "zomi/login", &handle, nullptr), 0);
  EXPECT_LT(KLIBPluginSDKInit("zomi", nullptr, &handle, nullptr), 0);
  EXPECT_EQ(handle, nullptr);
  EXPECT_LT(KLIBPluginSDKInit("zomi", "zomi/login", nullptr, nullptr), 0);
  EXPECT_LT(KLIBPluginAction(4, nullptr), 0);
  EXPECT_GE(KLIBPluginExit(nullptr), 0);
}

TEST_F(PlatformContract, RunsAProgram) {
  EXPECT_EQ(KLIBCExecl("/bin/true", 0xBB, nullptr), 0);
  EXPECT_LT(KLIBCExecl(nullptr, 0xBB, nullptr), 0);
}

// --- Cloud service, notices, log

TEST_F(PlatformContract, AStoredApiKeyIsGivenUntilItIsDropped) {
  facts::StoreApiKey("key-1");
  char buffer[1024] = "";
  EXPECT_GE(KIVOCloudServiceGetApiKey(buffer, 1), 0);
  EXPECT_STREQ(buffer, "key-1");
  EXPECT_EQ(KIVOCloudServiceGetErrorCode(), 0);
  EXPECT_GE(KIVOCloudServiceActionHandler(2), 0);
  EXPECT_LT(KIVOCloudServiceGetApiKey(buffer, 0), 0);
  EXPECT_NE(KIVOCloudServiceGetErrorCode(), 0);
  EXPECT_GE(KIVOCloudServiceActionHandler(2), 0);
  EXPECT_EQ(KIVOCloudServiceGetErrorCode(), 0);
}

TEST_F(PlatformContract, TheCloudServiceTakesNoNullAndNoOtherAction) {
  EXPECT_LT(KIVOCloudServiceGetApiKey(nullptr, 1), 0);
  EXPECT_LT(KIVOCloudServiceRegisterApiKey(nullptr), 0);
  EXPECT_LT(KIVOCloudServiceActionHandler(1), 0);
}

TEST_F(PlatformContract, SendsNoticesAndEvents) {
  const Hash params = NewHash();
  EXPECT_GE(KIVOSysNotifySendNotifiction("zomi_force_logout", params.get()), 0);
  KLIBCSzHashSetValue(params.get(), "%EMAIL%", "a@b.example");
  EXPECT_GE(KIVOSysNotifySendNotifiction("zomi_force_logout", params.get()), 0);
  EXPECT_STREQ(KLIBCSzHashGetValue(params.get(), "%EMAIL%"), "a@b.example");
  EXPECT_LT(KIVOSysNotifySendNotifiction(nullptr, params.get()), 0);
  EXPECT_LT(KIVOSysNotifySendNotifiction("tag", nullptr), 0);
  EXPECT_GE(KIVOLogSet1(2, 1, 0x13A00001, "a@b.example", "", "", ""), 0);
  EXPECT_LT(KIVOLogSet1(2, 1, 0x13A00001, "a@b.example", "", "", nullptr), 0);
}

// --- Crond

Json::Value Jobs(const std::string& schedule) {
  Json::Value job;
  job["name"] = "job";
  job["period"] = "crontab";
  job["crontab"] = schedule;
  job["user"] = "root";
  job["cmd_list"].append("/usr/kivo/bin/nodelink");
  job["cmd_list"].append("--report_info");
  Json::Value jobs(Json::arrayValue);
  jobs.append(job);
  return jobs;
}

TEST_F(PlatformContract, SavesAndRemovesAJobList) {
  KIVO::KIVOCrond::ConfigManager list("zomi", false);
  EXPECT_TRUE(list.Remove());
  EXPECT_TRUE(list.Save(Jobs("~ 9~16 * * 1~5")));
  EXPECT_TRUE(facts::HasJobList("zomi"));
  EXPECT_TRUE(list.Save(Jobs("0 9 * * 1-5")));
  EXPECT_TRUE(list.Remove());
  EXPECT_FALSE(facts::HasJobList("zomi"));
}

TEST_F(PlatformContract, AWrongListIsNotSavedAndKeepsTheOldOne) {
  KIVO::KIVOCrond::ConfigManager list("zomi", false);
  for (const char* schedule :
       {"", "* * * *", "* * * * * *", "@daily", "* * * * *\nx", "$ * * * *"}) {
    EXPECT_FALSE(list.Save(Jobs(schedule))) << schedule;
  }
  EXPECT_FALSE(list.Save(Json::Value()));
  EXPECT_FALSE(list.Save(Json::Value("text")));
  for (const char* member : {"name", "period", "crontab", "user", "cmd_list"}) {
    Json::Value jobs = Jobs("* * * * *");
    jobs[0].removeMember(member);
    EXPECT_FALSE(list.Save(jobs)) << member;
    jobs[0][member] = 7;
    EXPECT_FALSE(list.Save(jobs)) << member;
    jobs[0][member] = "line\nbreak";
    EXPECT_FALSE(list.Save(jobs)) << member;
  }
  EXPECT_FALSE(facts::HasJobList("zomi"));
  EXPECT_TRUE(list.Save(Jobs("* * * * *")));
  EXPECT_FALSE(list.Save(Jobs("* * * *")));
  EXPECT_TRUE(facts::HasJobList("zomi"));
}

TEST_F(PlatformContract, RemovesTheOlderScheduleEntryOfExactlyThisCommand) {
  const std::string command = "/usr/kivo/bin/nodelink --report_info";
  EXPECT_GE(KIVOScheduleRemove(command.c_str()), 0);
  facts::AddOldScheduleEntry(command);
  facts::AddOldScheduleEntry(command + " --more");
  facts::AddOldScheduleEntry(command);
  EXPECT_GE(KIVOScheduleRemove(command.c_str()), 0);
  EXPECT_EQ(facts::OldScheduleEntries(command), 0);
  EXPECT_EQ(facts::OldScheduleEntries(command + " --more"), 1);
  EXPECT_LT(KIVOScheduleRemove(nullptr), 0);
}

// --- PKCE

std::string ChallengeOf(const std::string& verifier) {
  std::array<unsigned char, crypto_hash_sha256_BYTES> digest = {};
  crypto_hash_sha256(digest.data(), reinterpret_cast<const unsigned char*>(verifier.data()),
                     verifier.size());
  char text[kSize] = "";
  return sodium_bin2base64(text, sizeof text, digest.data(), digest.size(),
                           sodium_base64_VARIANT_URLSAFE_NO_PADDING);
}

TEST_F(PlatformContract, TheChallengeIsTheHashOfTheVerifier) {
  char challenge[44] = "";
  char verifier[44] = "";
  ASSERT_GE(kivo_challenge_verifier_no_save(challenge, sizeof challenge, verifier, sizeof verifier),
            0);
  EXPECT_EQ(std::strlen(verifier), 43U);
  EXPECT_EQ(ChallengeOf(verifier), challenge);
  EXPECT_LT(kivo_challenge_verifier_no_save(challenge, 43, verifier, sizeof verifier), 0);
  EXPECT_LT(kivo_challenge_verifier_no_save(challenge, sizeof challenge, verifier, 43), 0);
  EXPECT_LT(kivo_challenge_verifier_no_save(nullptr, 44, verifier, sizeof verifier), 0);
}

}  // namespace
