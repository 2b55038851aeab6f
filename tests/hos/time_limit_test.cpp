// Waits that end at their limit; slow, because the limits are.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>

#include <string>

#include "base/unique_fd.h"
#include "klib/plugin.h"
#include "klibc/keyvalue.h"
#include "lab/files.h"

namespace {

const std::string kFolder = "/usr/kivo/lib/plugin/zomi/login/";

TEST(TimeLimit, APluginThatRunsOutOfTimeIsKilledWithItsChildren) {
  test_files::Remove("/usr/kivo/lib/plugin");
  test_files::Write(kFolder + "1-hangs",
                    "#!/bin/sh\nmkfifo /tmp/never\ncat /tmp/never &\n"
                    "echo $! >/tmp/grandchild\nwait\n",
                    0755);
  test_files::Write(kFolder + "2-works", "#!/bin/sh\necho $1 >/tmp/worked\n", 0755);
  KLIBPLUGIN* handle = nullptr;
  ASSERT_GE(KLIBPluginSDKInit("zomi", "zomi/login", &handle, &handle), 0);
  EXPECT_LT(KLIBPluginAction(4, handle), 0);
  KLIBPluginExit(handle);
  EXPECT_EQ(test_files::Read("/tmp/worked"), "4\n");
  // The grandchild is dead, though its new parent may not have taken note yet.
  const std::string pid = test_files::Read("/tmp/grandchild");
  const std::string stat = test_files::Read("/proc/" + pid.substr(0, pid.find('\n')) + "/stat");
  EXPECT_TRUE(stat.empty() || stat.find(") Z ") != std::string::npos) << stat;
}

TEST(TimeLimit, AWriterThatNeverGetsTheFolderFails) {
  test_files::MakeFolder("/tmp/held");
  const base::UniqueFd folder(open("/tmp/held", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  ASSERT_EQ(flock(folder.get(), LOCK_EX), 0);
  EXPECT_LT(KLIBCFileSetKeyValue("/tmp/held/record.conf", "key", "v", "%s=\"%s\"\n"), 0);
  EXPECT_TRUE(test_files::NamesIn("/tmp/held").empty());
}

}  // namespace
