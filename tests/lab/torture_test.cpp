// The models by which the torture judges what a tracer has recorded.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "lab/files.h"
#include "lab/torture/disk.h"
#include "lab/torture/selection.h"

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr char kRecorded[] = "/tmp/recorded";
constexpr char kFile[] = "/d/file";

torture::Trace Recorded(const std::string& text) {
  test_files::Write(kRecorded, text);
  return torture::ReadTrace(kRecorded);
}

TEST(Trace, JoinsACallThatStandsInTwoLines) {
  const auto trace = Recorded(
      "7 write(5</d/a>, \"1, (2\", 5 <unfinished ...>\n"
      "8 close(3)      = 0\n"
      "7 <... write resumed>) = -1 EIO (Input/output error) (INJECTED)\n");
  ASSERT_EQ(trace.calls.size(), 2U);
  const torture::TracedCall& call = trace.calls[0];
  EXPECT_EQ(call.process, 7);
  EXPECT_EQ(call.name, "write");
  EXPECT_TRUE(call.injected);
  EXPECT_GT(call.end_line, trace.calls[1].end_line);
  EXPECT_THAT(torture::ArgumentsOf(call), ElementsAre("5</d/a>", "\"1, (2\"", "5"));
  EXPECT_FALSE(trace.killed);
}

TEST(Trace, KnowsWhoDidNotLiveToSeeTheEnd) {
  const auto trace = Recorded("7 write(5</d/a>, \"x\", 1) = ?\n7 +++ killed by SIGKILL +++\n");
  ASSERT_EQ(trace.calls.size(), 1U);
  EXPECT_FALSE(trace.calls[0].ended());
  EXPECT_TRUE(trace.killed);
}

TEST(Trace, ReadsTextsAndPaths) {
  EXPECT_EQ(torture::TextOf(R"("a\n\"\\\0012")"), "a\n\"\\\0012");
  EXPECT_EQ(torture::PathOf("AT_FDCWD</d/a b>"), "/d/a b");
  EXPECT_THROW((void)torture::TextOf("\"cut\"..."), std::runtime_error);
}

class Disk : public testing::Test {
 protected:
  // The steps of a replacement, as a tracer records them.
  const std::string make_ = "7 openat(4</d>, \".file.tmp\", O_WRONLY|O_CREAT|O_EXCL, 0600) = 5\n";
  const std::string write_ = "7 write(5</d/.file.tmp>, \"new\", 3) = 3\n";
  const std::string flush_ = "7 fsync(5</d/.file.tmp>) = 0\n";
  const std::string rename_ = "7 renameat(4</d>, \".file.tmp\", 4</d>, \"file\") = 0\n";
  const std::string flush_folder_ = "7 fsync(4</d>) = 0\n";

  static torture::PowerLoss Cut(const std::string& recorded) {
    return torture::CutPower(Recorded(recorded), {{kFile, {"old", 0600}}}, {"/d"});
  }

  // The texts that the file can have after a power failure; "-" when it can be missing.
  static std::set<std::string> Texts(const torture::PowerLoss& loss) {
    std::set<std::string> texts;
    for (const torture::DiskState& state : loss.states) {
      const auto file = state.files.find(kFile);
      texts.insert(file == state.files.end() ? "-" : file->second.text);
    }
    return texts;
  }
};

TEST_F(Disk, OfAGoodReplacementHasTheOldOrTheNewFile) {
  const auto loss = Cut(make_ + write_ + flush_ + rename_ + flush_folder_);
  EXPECT_THAT(Texts(loss), ElementsAre("new", "old"));
  EXPECT_THAT(loss.at_the_end, IsEmpty());
  EXPECT_EQ(loss.states.front().name, "001-strict");
}

TEST_F(Disk, LosesWhatWasNotFlushedBeforeTheRename) {
  EXPECT_THAT(Texts(Cut(make_ + write_ + rename_ + flush_folder_)), Contains(""));
}

TEST_F(Disk, MayLoseANameWhoseFolderWasNotFlushed) {
  EXPECT_THAT(Cut(make_ + write_ + flush_ + rename_).at_the_end, Contains("/d/file may be lost"));
}

TEST_F(Disk, LosesAFileThatIsRemovedBeforeTheRename) {
  const std::string remove = "7 unlinkat(4</d>, \"file\", 0) = 0\n";
  const auto loss = Cut(make_ + write_ + flush_ + remove + rename_ + flush_folder_);
  EXPECT_THAT(Texts(loss), Contains("-"));
}

TEST_F(Disk, TakesNoNoticeOfCallsThatFailed) {
  EXPECT_THAT(Texts(Cut("7 unlinkat(4</d>, \"file\", 0) = -1 EIO (Input/output error)\n")),
              ElementsAre("old"));
}

TEST_F(Disk, RefusesWhatItDoesNotKnow) {
  EXPECT_THROW((void)Cut("7 ftruncate(5</d/file>, 0) = 0\n"), std::runtime_error);
}

// Whoever repeats a case, or runs the other share, must mean the same one.
TEST(Selection, PutsEachCaseIntoOneShare) {
  int first = 0;
  for (int number = 0; number < 100; ++number) {
    const std::string name = "flow write " + std::to_string(number) + " EIO";
    const bool in_first = torture::Selection{.shares = 2}.IsShared(name);
    const bool in_second = torture::Selection{.share = 1, .shares = 2}.IsShared(name);
    EXPECT_NE(in_first, in_second) << name;
    if (in_first) ++first;
  }
  EXPECT_GT(first, 25);
  EXPECT_LT(first, 75);
  EXPECT_FALSE(torture::Selection{.flows = {"query"}}.TakesFlow("report"));
}

}  // namespace
