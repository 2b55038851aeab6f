#include "tests/fake_hos/fake_hos.h"

#include <gtest/gtest.h>

#include <string>

#include "kivo/cloudservice.h"
#include "kivo/crond.h"
#include "klib/device.h"
#include "klib/plugin.h"
#include "klibc/error.h"
#include "klibc/exec.h"
#include "klibc/filelock.h"
#include "klibc/keyvalue.h"
#include "klibc/szhash.h"
#include "lab/files.h"

namespace {

using fake_hos::platform;

class FakeHos : public testing::Test {
 protected:
  void SetUp() override { platform().Reset(); }

  static int Serial() { return KLIBGetSerialNumber(buffer_, sizeof buffer_); }

  static inline char buffer_[64] = "";
};

TEST_F(FakeHos, RecordsCallsInOrder) {
  Serial();
  KLIBCSZHASH* hash = KLIBCSzHashAlloc(16);
  KLIBCSzHashFree(hash);
  KLIBCExecl("/bin/x", 0xBB, "-a", "b c", static_cast<const char*>(nullptr));
  ASSERT_EQ(platform().calls().size(), 2U);
  EXPECT_EQ(platform().calls()[0].ToText(), "KLIBGetSerialNumber(64)");
  EXPECT_EQ(platform().calls()[1].ToText(), "KLIBCExecl(/bin/x, 187, -a, b c)");
  EXPECT_EQ(platform().all_calls().size(), 4U);
  EXPECT_EQ(platform().call_count("KLIBCSzHashFree"), 1U);
}

TEST_F(FakeHos, FailsTheScriptedCallOnly) {
  platform().FailCall("KLIBGetSerialNumber", 2);
  EXPECT_GE(Serial(), 0);
  EXPECT_EQ(KLIBCErrGet(), 0);
  EXPECT_STREQ(KLIBCErrorGetFile(), "");
  platform().SetFailureTriple({0x1234, "flash.c", 77});
  EXPECT_LT(Serial(), 0);
  EXPECT_EQ(KLIBCErrGet(), 0x1234);
  EXPECT_STREQ(KLIBCErrorGetFile(), "flash.c");
  EXPECT_EQ(KLIBCErrorGetLine(), 77);
  EXPECT_GE(Serial(), 0);
  platform().FailAlways("KLIBGetSerialNumber");
  EXPECT_LT(Serial(), 0);
  EXPECT_LT(Serial(), 0);
  platform().StopFailing();
  EXPECT_GE(Serial(), 0);
}

TEST_F(FakeHos, FailsTheNthCallWhateverItIs) {
  int fired = 0;
  for (int n = 1;; ++n) {
    platform().Reset();
    platform().FailNthCallOverall(n);
    Serial();
    KLIBCSZHASH* hash = KLIBCSzHashAlloc(16);
    KLIBCSzHashFree(hash);
    KIVO::KIVOCrond::ConfigManager("zomi", false).Remove();
    EXPECT_EQ(platform().live_objects(), 0);
    if (!platform().nth_call_fired()) break;
    ++fired;
    if (n == 3) {
      EXPECT_EQ(platform().nth_call().ToText(), "ConfigManager::Remove(zomi)");
    }
  }
  EXPECT_EQ(fired, 3);
}

TEST_F(FakeHos, AHookRunsBeforeTheCallActs) {
  platform().OnCall("KLIBGetSerialNumber", [](const fake_hos::Call&) {
    platform().device.serial_number = "HOOKED";
    platform().FailCall("KLIBCExecl", 1);
  });
  EXPECT_GE(Serial(), 0);
  EXPECT_STREQ(buffer_, "HOOKED");
  EXPECT_LT(KLIBCExecl("/bin/x", 0xBB, static_cast<const char*>(nullptr)), 0);
}

TEST_F(FakeHos, CountsWhatIsNotGivenBack) {
  test_files::Write("/tmp/lock", "");
  int fd = -1;
  KLIBPLUGIN* handle = nullptr;
  KLIBCSZHASH* hash = KLIBCSzHashAlloc(16);
  ASSERT_NE(KLIBCFileLockByFile("/tmp/lock", 1, &fd), 0);
  ASSERT_GE(KLIBPluginSDKInit("zomi", "zomi/login", &handle, &handle), 0);
  EXPECT_EQ(platform().live_objects(), 3);
  platform().FailNext("KLIBCFileUnlockByFile");
  EXPECT_EQ(KLIBCFileUnlockByFile(fd), 0);
  platform().FailNext("KLIBPluginExit");
  EXPECT_LT(KLIBPluginExit(handle), 0);
  KLIBCSzHashFree(hash);
  EXPECT_EQ(platform().live_objects(), 0);
}

TEST_F(FakeHos, ALockCanBeBusy) {
  test_files::Write("/tmp/lock", "");
  platform().busy_lock_tries = 2;
  int fd = -1;
  EXPECT_EQ(KLIBCFileLockByFile("/tmp/lock", 1, &fd), 0);
  EXPECT_EQ(KLIBCFileLockByFile("/tmp/lock", 1, &fd), 0);
  EXPECT_NE(KLIBCFileLockByFile("/tmp/lock", 1, &fd), 0);
  EXPECT_NE(KLIBCFileUnlockByFile(fd), 0);
}

TEST_F(FakeHos, PlaysTheProgramsThatAreRun) {
  platform().exec_status = 3;
  EXPECT_EQ(KLIBCExecl("/bin/x", 0xBB, static_cast<const char*>(nullptr)), 3);
  platform().exec = [](const fake_hos::ExecRun& run) { return run.path == "/bin/y" ? 1 : 0; };
  EXPECT_EQ(KLIBCExecl("/bin/y", 0xBB, "z", static_cast<const char*>(nullptr)), 1);
  ASSERT_EQ(platform().exec_runs.size(), 2U);
  EXPECT_EQ(platform().exec_runs[1], (fake_hos::ExecRun{"/bin/y", 0xBB, {"z"}}));
}

TEST_F(FakeHos, RegistersAKeyWhenNoneIsStored) {
  char key[1024] = "";
  EXPECT_GE(KIVOCloudServiceGetApiKey(key, 1), 0);
  EXPECT_STREQ(key, "fake-api-key");
  EXPECT_EQ(platform().cloud.stored_api_key, "fake-api-key");
  platform().cloud.failure_code = 7;
  platform().FailNext("KIVOCloudServiceRegisterApiKey");
  EXPECT_LT(KIVOCloudServiceRegisterApiKey(key), 0);
  EXPECT_EQ(KIVOCloudServiceGetErrorCode(), 7);
}

TEST_F(FakeHos, AFailedWriteLeavesTheFile) {
  test_files::Write("/tmp/record.conf", "key=\"old\"\n");
  platform().FailNext("KLIBCFileSetKeyValue");
  EXPECT_LT(KLIBCFileSetKeyValue("/tmp/record.conf", "key", "new", "%s=\"%s\"\n"), 0);
  EXPECT_EQ(test_files::Read("/tmp/record.conf"), "key=\"old\"\n");
}

}  // namespace
