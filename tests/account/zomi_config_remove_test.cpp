#include "account/zomi_config_remove.h"

#include <string>

#include "tests/account/record_fixture.h"

namespace nodelink {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class ZomiConfigRemoveTest : public PlatformTest {
 protected:
  void SetUp() override { WriteRecord(kRecord); }

  static constexpr char kRecord[] = "zomiID=\"a\"\n";
  static constexpr char kInit[] = "KLIBPluginSDKInit(zomi, zomi/logout, null)";
};

std::vector<std::string> CallTexts() {
  std::vector<std::string> texts;
  for (const fake_hos::Call& call : fake_hos::platform().calls()) texts.push_back(call.ToText());
  return texts;
}

TEST_F(ZomiConfigRemoveTest, TellsThePluginsThenRemovesTheRecord) {
  bool had_record_at_action = false;
  bool had_record_at_exit = true;
  platform().OnCall("KLIBPluginAction",
                    [&](const fake_hos::Call&) { had_record_at_action = HasRecord(); });
  platform().OnCall("KLIBPluginExit",
                    [&](const fake_hos::Call&) { had_record_at_exit = HasRecord(); });
  EXPECT_EQ(ZomiConfigRemove(), 0);
  EXPECT_TRUE(had_record_at_action);
  EXPECT_FALSE(had_record_at_exit);
  EXPECT_THAT(CallTexts(), ElementsAre(kInit, "KLIBPluginAction(4)", "KLIBPluginExit(handle)"));
  EXPECT_THAT(platform().plugin_runs, ElementsAre(fake_hos::PluginRun{"zomi", "zomi/logout", 4}));
  EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(ZomiConfigRemoveTest, NoRecordCountsAsRemoved) {
  RemoveRecord();
  EXPECT_EQ(ZomiConfigRemove(), 0);
  EXPECT_THAT(platform().plugin_runs, testing::SizeIs(1));
  EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(ZomiConfigRemoveTest, PluginsThatCannotBeOpenedKeepTheRecord) {
  platform().FailNext("KLIBPluginSDKInit");
  EXPECT_EQ(ZomiConfigRemove(), -1);
  EXPECT_EQ(ReadRecord(), kRecord);
  EXPECT_THAT(LogWithPriorities(),
              ElementsAre("user.err zomi_config_remove KLIBPluginSDKInit failed"));
  EXPECT_THAT(CallTexts(), ElementsAre(kInit));
}

TEST_F(ZomiConfigRemoveTest, FailedActionKeepsTheRecord) {
  platform().FailNext("KLIBPluginAction");
  EXPECT_EQ(ZomiConfigRemove(), -1);
  EXPECT_EQ(ReadRecord(), kRecord);
  EXPECT_THAT(LogWithPriorities(),
              ElementsAre("user.err zomi_config_remove KLIBPluginAction failed, action=4"));
  EXPECT_THAT(CallTexts(), ElementsAre(kInit, "KLIBPluginAction(4)", "KLIBPluginExit(handle)"));
}

TEST_F(ZomiConfigRemoveTest, FailedExitIsNoFailure) {
  platform().FailNext("KLIBPluginExit");
  EXPECT_EQ(ZomiConfigRemove(), 0);
  EXPECT_FALSE(HasRecord());
}

TEST_F(ZomiConfigRemoveTest, AnyFailingCallKeepsTheRecordWholeOrRemovesIt) {
  int result = 0;
  FailEachCall([] { WriteRecord(kRecord); }, [&] { result = ZomiConfigRemove(); },
               [&] {
                 EXPECT_EQ(ReadRecord(), result == 0 ? "" : kRecord);
                 EXPECT_EQ(HasRecord(), result != 0);
               });
}

}  // namespace
}  // namespace nodelink
