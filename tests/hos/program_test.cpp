// Programs that the platform starts: plug-ins and KLIBCExecl.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <string>

#include "base/unique_fd.h"
#include "klib/plugin.h"
#include "klibc/error.h"
#include "klibc/exec.h"
#include "lab/files.h"
#include "lab/users.h"

namespace {

const std::string kFolder = "/usr/kivo/lib/plugin/zomi/login";
const std::string kTrace = "/tmp/trace";

void AddPlugin(const std::string& name, const std::string& body, mode_t mode = 0755) {
  test_files::Write(kFolder + "/" + name,
                    "#!/bin/sh\necho " + name + " \"$@\" >>" + kTrace + "\n" + body + "\n", mode);
}

int RunAction(const char* action, unsigned number) {
  KLIBPLUGIN* handle = nullptr;
  if (KLIBPluginSDKInit("zomi", action, &handle, &handle) < 0) return -2;
  const int result = KLIBPluginAction(number, handle);
  KLIBPluginExit(handle);
  return result;
}

class Plugins : public testing::Test {
 protected:
  void SetUp() override {
    test_files::Remove("/usr/kivo/lib/plugin");
    test_files::Remove(kTrace);
    test_files::MakeFolder(kFolder);
  }
};

TEST_F(Plugins, RunInNameOrderWithTheActionNumber) {
  AddPlugin("20-second", "");
  AddPlugin("10-first", "");
  AddPlugin("Z-early", "");
  EXPECT_GE(RunAction("zomi/login", 4), 0);
  EXPECT_EQ(test_files::Read(kTrace), "10-first 4\n20-second 4\nZ-early 4\n");
}

TEST_F(Plugins, AnEmptyOrMissingFolderSucceeds) {
  EXPECT_GE(RunAction("zomi/login", 4), 0);
  EXPECT_GE(RunAction("zomi/logout", 4), 0);
  test_files::Remove("/usr/kivo/lib/plugin");
  EXPECT_GE(RunAction("zomi/login", 4), 0);
}

TEST_F(Plugins, AFailureDoesNotStopTheOthers) {
  AddPlugin("1-fails", "exit 3");
  AddPlugin("2-dies", "kill -9 $$");
  AddPlugin("3-works", "");
  test_files::Write(kFolder + "/4-no-program",
                    "\x7f"
                    "ELF?",
                    0755);
  EXPECT_LT(RunAction("zomi/login", 5), 0);
  EXPECT_EQ(test_files::Read(kTrace), "1-fails 5\n2-dies 5\n3-works 5\n");
}

TEST_F(Plugins, OnlyRegularExecutableFilesWithPlainNamesCount) {
  AddPlugin(".hidden", "");
  AddPlugin("backup~", "");
  AddPlugin("readme", "", 0644);
  test_files::MakeFolder(kFolder + "/folder");
  test_files::Write("/tmp/elsewhere", "#!/bin/sh\necho link >>/tmp/trace\n", 0755);
  ASSERT_EQ(symlink("/tmp/elsewhere", (kFolder + "/link").c_str()), 0);
  EXPECT_GE(RunAction("zomi/login", 4), 0);
  EXPECT_FALSE(test_files::Exists(kTrace));
}

TEST_F(Plugins, WhatOthersMayChangeIsNotRun) {
  AddPlugin("1-open", "", 0775);
  AddPlugin("3-good", "");
  EXPECT_LT(RunAction("zomi/login", 4), 0);
  EXPECT_EQ(test_files::Read(kTrace), "3-good 4\n");

  test_files::Remove(kTrace);
  ASSERT_EQ(chmod("/usr/kivo/lib/plugin/zomi", 0777), 0);
  EXPECT_LT(RunAction("zomi/login", 4), 0);
  EXPECT_FALSE(test_files::Exists(kTrace));
}

TEST_F(Plugins, WhatIsNotRootsIsNotRun) {
  if (!lab::HasOtherUsers()) GTEST_SKIP() << "the lab of an ordinary user has no other users";
  AddPlugin("1-foreign", "");
  ASSERT_EQ(chown((kFolder + "/1-foreign").c_str(), 1026, 100), 0);
  AddPlugin("2-good", "");
  EXPECT_LT(RunAction("zomi/login", 4), 0);
  EXPECT_EQ(test_files::Read(kTrace), "2-good 4\n");
}

TEST_F(Plugins, AnActionNameCannotLeadElsewhere) {
  for (const char* action : {"", "/", "..", "zomi/../login", "/zomi/login", "zomi/", "zomi//login",
                             "zomi/.hidden", "zomi login", "zomi\n"}) {
    EXPECT_EQ(RunAction(action, 4), -2) << action;
  }
}

class Exec : public testing::Test {
 protected:
  void SetUp() override { test_files::Remove(kTrace); }

  static int Shell(const char* script) {
    return KLIBCExecl("/bin/sh", 0xBB, "-c", script, static_cast<const char*>(nullptr));
  }
};

TEST_F(Exec, GivesTheExitStatus) {
  EXPECT_EQ(Shell("exit 0"), 0);
  EXPECT_EQ(Shell("exit 42"), 42);
  EXPECT_EQ(Shell("kill -9 $$"), 128 + SIGKILL);
}

TEST_F(Exec, PassesTheArgumentsAsTheyAre) {
  EXPECT_EQ(KLIBCExecl("/bin/sh", 0xBB, "-c", "printf '%s|' \"$0\" \"$@\" >/tmp/trace", "a b", "",
                       "<a href=\"x\">", "$(id)", static_cast<const char*>(nullptr)),
            0);
  EXPECT_EQ(test_files::Read(kTrace), "a b||<a href=\"x\">|$(id)|");
}

TEST_F(Exec, AProgramThatCannotBeStartedIsAFailure) {
  EXPECT_LT(KLIBCExecl("/no/such/program", 0xBB, static_cast<const char*>(nullptr)), 0);
  EXPECT_EQ(KLIBCErrGet(), ENOENT);
  EXPECT_STREQ(KLIBCErrorGetFile(), "child.cpp");
  test_files::Write("/tmp/plain", "text", 0644);
  EXPECT_LT(KLIBCExecl("/tmp/plain", 0xBB, static_cast<const char*>(nullptr)), 0);
}

TEST_F(Exec, TheProgramGetsNullStreamsNoDescriptorAndAFixedEnvironment) {
  const base::UniqueFd leak(open("/dev/null", O_RDONLY));  // meant to leak: not close-on-exec
  ASSERT_TRUE(leak);
  ASSERT_LT(leak.get(), 9);
  setenv("NODELINK_TEST_SECRET", "x", 1);
  // The shell's own pipes come and go, so the descriptors are looked at one by one, without any.
  ASSERT_EQ(Shell("s=$(readlink /proc/$$/fd/0 /proc/$$/fd/1 /proc/$$/fd/2); exec 9>/tmp/trace;"
                  "echo \"$s\" >&9;"
                  "for n in 3 4 5 6 7 8; do [ ! -e /proc/$$/fd/$n ] || echo \"open: $n\" >&9; done;"
                  "echo \"secret: $NODELINK_TEST_SECRET\" >&9"),
            0);
  EXPECT_EQ(test_files::Read(kTrace), "/dev/null\n/dev/null\n/dev/null\nsecret: \n");
}

TEST_F(Exec, TheStatusIsKnownThoughTheCallerIgnoresItsChildren) {
  struct sigaction ignore = {};
  struct sigaction old = {};
  struct sigaction after = {};
  ignore.sa_handler = SIG_IGN;
  ASSERT_EQ(sigaction(SIGCHLD, &ignore, &old), 0);
  EXPECT_EQ(Shell("exit 7"), 7);
  ASSERT_EQ(sigaction(SIGCHLD, &old, &after), 0);
  EXPECT_EQ(after.sa_handler, SIG_IGN);
}

TEST_F(Exec, SignalsOfTheCallerAreNotHandedDown) {
  struct sigaction ignore = {};
  struct sigaction old = {};
  ignore.sa_handler = SIG_IGN;
  ASSERT_EQ(sigaction(SIGTERM, &ignore, &old), 0);
  EXPECT_EQ(Shell("kill -TERM $$; exit 1"), 128 + SIGTERM);
  ASSERT_EQ(sigaction(SIGTERM, &old, nullptr), 0);
}

}  // namespace
