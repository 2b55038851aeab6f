#include "platform/zomi_plugin_manager.h"

#include <string>
#include <vector>

#include "tests/support/fail_each_call.h"
#include "tests/support/platform_fixture.h"

namespace nodelink {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class ZomiPluginManagerTest : public PlatformTest {
 protected:
  static std::vector<std::string> Calls() {
    std::vector<std::string> texts;
    for (const fake_hos::Call& call : platform().calls()) texts.push_back(call.ToText());
    return texts;
  }
};

TEST_F(ZomiPluginManagerTest, RunsActionFour) {
  RunPluginAction4("zomi/login");
  EXPECT_THAT(Calls(), ElementsAre("KLIBPluginSDKInit(zomi, zomi/login, handle)",
                                   "KLIBPluginAction(4)", "KLIBPluginExit(handle)"));
  EXPECT_THAT(platform().plugin_runs, ElementsAre(fake_hos::PluginRun{"zomi", "zomi/login", 4}));
  EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(ZomiPluginManagerTest, RunsActionFive) {
  RunPluginAction5("zomi/logout");
  EXPECT_THAT(Calls(), ElementsAre("KLIBPluginSDKInit(zomi, zomi/logout, handle)",
                                   "KLIBPluginAction(5)", "KLIBPluginExit(handle)"));
  EXPECT_THAT(platform().plugin_runs, ElementsAre(fake_hos::PluginRun{"zomi", "zomi/logout", 5}));
}

TEST_F(ZomiPluginManagerTest, FailedInitIsLoggedAndTheExitStillCalled) {
  platform().FailNext("KLIBPluginSDKInit");
  RunPluginAction4("zomi/%s");
  EXPECT_THAT(LogWithPriorities(),
              ElementsAre("user.err zomi_plugin_manager Failed to init plugin: zomi/%s"));
  EXPECT_THAT(Calls(),
              ElementsAre("KLIBPluginSDKInit(zomi, zomi/%s, handle)", "KLIBPluginExit(null)"));
}

TEST_F(ZomiPluginManagerTest, FailedActionIsLoggedAndTheExitStillCalled) {
  platform().FailNext("KLIBPluginAction");
  RunPluginAction5("zomi/login");
  EXPECT_THAT(LogWithPriorities(),
              ElementsAre("user.err zomi_plugin_manager Failed to do plugin zomi/login, action=5"));
  EXPECT_THAT(Calls(), ElementsAre("KLIBPluginSDKInit(zomi, zomi/login, handle)",
                                   "KLIBPluginAction(5)", "KLIBPluginExit(handle)"));
}

TEST_F(ZomiPluginManagerTest, FailedExitIsNotLogged) {
  platform().FailNext("KLIBPluginExit");
  RunPluginAction4("zomi/login");
  EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(ZomiPluginManagerTest, AnyFailingCallIsSwallowed) {
  FailEachCall([] {}, [] { RunPluginAction4("zomi/login"); },
               [] { EXPECT_GE(platform().call_count("KLIBPluginExit"), 1U); });
}

}  // namespace
}  // namespace nodelink
