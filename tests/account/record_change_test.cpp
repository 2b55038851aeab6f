#include "account/record_change.h"

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "account/account_files.h"
#include "tests/account/record_fixture.h"

namespace nodelink {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

const std::filesystem::path kFolder = std::filesystem::path(account_files::kRecord).parent_path();

constexpr char kBefore[] =
    "# kept\nzomiIDSerial=\"1\"\nhs_auth_key=\"k1\"\ncountry=\"CH\"\nzomiID=\"a\"\n";

class RecordChangeTest : public PlatformTest {
 protected:
  void SetLink(RecordChange& change, const std::string& serial, const std::string& key) {
    change.Set(lock_, record::kZomiIdSerial, serial);
    change.Set(lock_, record::kHsAuthKey, key);
  }

  // As another program writes it.
  static void Write(const TextKey& key, const std::string& value) { User().Set(key, value); }

  static ino_t Inode() {
    struct stat status {};
    return lstat(account_files::kRecord, &status) == 0 ? status.st_ino : 0;
  }

  LinkLock lock_;
};

TEST_F(RecordChangeTest, TakesEveryKeyBackByteForByte) {
  WriteRecord(kBefore);
  RecordChange change;
  SetLink(change, "2", "k2");
  change.Set(lock_, record::kCountry, std::string("DE"));
  change.Set(lock_, record::kFullName, std::string("new key"));
  change.Set(lock_, record::kActivated, true);
  change.Set(lock_, record::kLastQueryTime, std::int64_t{-7});
  change.Undo(lock_);
  EXPECT_EQ(ReadRecord(), kBefore);
  EXPECT_EQ(RecordProtection(), "600 0:0");
  EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(RecordChangeTest, KeepsOddLinesAsTheyWere) {
  for (const char* before : {" country = CH \nx\n", "country=\"CH\"\ncountry=\"second\"\n",
                             "#country=\"DE\"\ncountry=\n", "zomiID=\"a\"\ncountry=\"no line end\"",
                             "zomiID=\"a\"", "", "country", "\n\n", "a=\"\0\"\n"}) {
    SCOPED_TRACE(before);
    WriteRecord(before);
    RecordChange change;
    change.Set(lock_, record::kCountry, std::string("AT"));
    change.Set(lock_, record::kTimezone, std::string("Vienna"));
    change.Undo(lock_);
    EXPECT_EQ(ReadRecord(), before);
    EXPECT_TRUE(HasRecord());
  }
}

TEST_F(RecordChangeTest, ALineWithoutItsEndGetsOneWhenOthersFollow) {
  WriteRecord("country=\"CH\"");
  RecordChange change;
  change.Set(lock_, record::kCountry, std::string("AT"));
  Write(record::kTimezone, "Vienna");
  change.Undo(lock_);
  EXPECT_EQ(ReadRecord(), "country=\"CH\"\ntimezone=\"Vienna\"\n");
}

TEST_F(RecordChangeTest, AFirstRecordGoesAgain) {
  RecordChange change;
  SetLink(change, "2", "k2");
  change.Undo(lock_);
  EXPECT_FALSE(HasRecord());
  EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(RecordChangeTest, WhatOthersWroteStays) {
  WriteRecord(kBefore);
  RecordChange change;
  change.Set(lock_, record::kCountry, std::string("DE"));
  change.Set(lock_, record::kFullName, std::string("mine"));
  Write(record::kReportCronTimestring, "1 2 * * *");  // a key that was not written here
  Write(record::kFullName, "theirs");                 // one that was
  change.Undo(lock_);
  EXPECT_EQ(ReadRecord(),
            std::string(kBefore) + "full_name=\"theirs\"\nreport_cron_timestring=\"1 2 * * *\"\n");
}

TEST_F(RecordChangeTest, AFirstRecordWithOthersKeysStays) {
  RecordChange change;
  SetLink(change, "2", "k2");
  Write(record::kReportCronTimestring, "1 2 * * *");
  change.Undo(lock_);
  EXPECT_EQ(ReadRecord(), "report_cron_timestring=\"1 2 * * *\"\n");
}

TEST_F(RecordChangeTest, TheTwoKeysOfALinkGoBackTogetherOrNotAtAll) {
  for (const TextKey& theirs : {record::kZomiIdSerial, record::kHsAuthKey}) {
    WriteRecord(kBefore);
    RecordChange change;
    SetLink(change, "2", "k2");
    change.Set(lock_, record::kCountry, std::string("DE"));
    Write(theirs, "3");
    const std::string serial = User().Get(record::kZomiIdSerial);
    const std::string key = User().Get(record::kHsAuthKey);
    change.Undo(lock_);
    EXPECT_EQ(User().Get(record::kZomiIdSerial), serial) << theirs.name;
    EXPECT_EQ(User().Get(record::kHsAuthKey), key) << theirs.name;
    EXPECT_EQ(User().Get(record::kCountry), "CH");
  }
}

TEST_F(RecordChangeTest, ASerialWhoseKeyCouldNotBeWrittenGoesBack) {
  WriteRecord(kBefore);
  RecordChange change;
  platform().FailCall("KLIBCFileSetKeyValue", 2);
  EXPECT_EQ(CodeThrownBy([&] { SetLink(change, "2", "k2"); }), kAccountNotWritten);
  change.Undo(lock_);
  EXPECT_EQ(ReadRecord(), kBefore);
}

TEST_F(RecordChangeTest, AKeyThatWasWrittenTwiceHasItsFirstValueAgain) {
  WriteRecord(kBefore);
  RecordChange change;
  change.Set(lock_, record::kCountry, std::string("DE"));
  platform().FailNext("KLIBCFileSetKeyValue");
  EXPECT_EQ(CodeThrownBy([&] { change.Set(lock_, record::kCountry, std::string("AT")); }),
            kAccountNotWritten);
  change.Undo(lock_);
  EXPECT_EQ(ReadRecord(), kBefore);
}

TEST_F(RecordChangeTest, ARecordThatAnotherProgramRemovedStaysGone) {
  WriteRecord(kBefore);
  RecordChange change(Removal::kIsUndone);
  SetLink(change, "2", "k2");
  RemoveRecord();
  change.Undo(lock_);
  EXPECT_FALSE(HasRecord());
}

TEST_F(RecordChangeTest, ARecordThatTheFlowRemovedComesBackOnlyIfItShall) {
  for (const auto& [removal, record] :
       {std::pair(Removal::kStands, ""), std::pair(Removal::kIsUndone, kBefore)}) {
    WriteRecord(kBefore);
    RecordChange change(removal);
    SetLink(change, "2", "k2");
    EXPECT_FALSE(change.removed());
    change.Remove(lock_);
    EXPECT_TRUE(change.removed());
    EXPECT_FALSE(HasRecord());
    change.Undo(lock_);
    EXPECT_EQ(ReadRecord(), record);
  }
}

TEST_F(RecordChangeTest, WhatOthersWroteBeforeTheFlowRemovedTheRecordComesBackToo) {
  WriteRecord(kBefore);
  RecordChange change(Removal::kIsUndone);
  SetLink(change, "2", "k2");
  Write(record::kReportCronTimestring, "1 2 * * *");
  change.Remove(lock_);
  change.Undo(lock_);
  EXPECT_EQ(ReadRecord(), std::string(kBefore) + "report_cron_timestring=\"1 2 * * *\"\n");
}

TEST_F(RecordChangeTest, ARecordThatPlugInsKeptIsNotRemoved) {
  WriteRecord(kBefore);
  RecordChange change(Removal::kIsUndone);
  SetLink(change, "2", "k2");
  platform().FailNext("KLIBPluginAction");
  change.Remove(lock_);
  EXPECT_FALSE(change.removed());
  RemoveRecord();  // another program's logout
  change.Undo(lock_);
  EXPECT_FALSE(HasRecord());
}

TEST_F(RecordChangeTest, ALinkThatWasMadeAfterTheRemovalIsLeftAlone) {
  WriteRecord(kBefore);
  RecordChange change(Removal::kIsUndone);
  SetLink(change, "2", "k2");
  change.Remove(lock_);
  const std::string theirs = "zomiIDSerial=\"2\"\nhs_auth_key=\"k2\"\n";  // by chance the same
  WriteRecord(theirs);
  change.Undo(lock_);
  EXPECT_EQ(ReadRecord(), theirs);
}

TEST_F(RecordChangeTest, NothingIsRewrittenWhenNothingWasWritten) {
  WriteRecord(kBefore);
  const ino_t before = Inode();
  RecordChange unused;
  unused.Undo(lock_);
  RecordChange failed;
  platform().FailNext("KLIBCFileSetKeyValue");
  EXPECT_EQ(CodeThrownBy([&] { SetLink(failed, "2", "k2"); }), kAccountNotWritten);
  failed.Undo(lock_);
  EXPECT_EQ(Inode(), before);
  EXPECT_EQ(ReadRecord(), kBefore);
}

TEST_F(RecordChangeTest, ALinkInTheRecordsPlaceIsNotReplaced) {
  test_files::Write("/etc/elsewhere", kBefore, 0600);
  std::filesystem::create_symlink("/etc/elsewhere", account_files::kRecord);
  RecordChange change;
  EXPECT_EQ(CodeThrownBy([&] { SetLink(change, "2", "k2"); }), kAccountNotWritten);
  // As a platform that follows the link would write it.
  test_files::Write("/etc/elsewhere", "zomiIDSerial=\"2\"\n", 0600);
  change.Undo(lock_);
  EXPECT_TRUE(std::filesystem::is_symlink(account_files::kRecord));
  EXPECT_EQ(test_files::Read("/etc/elsewhere"), "zomiIDSerial=\"2\"\n");
  EXPECT_THAT(Log(), testing::Not(testing::Contains(testing::HasSubstr("restore"))));
}

TEST_F(RecordChangeTest, AFolderInTheRecordsPlaceIsNobodysChange) {
  std::filesystem::create_directory(account_files::kRecord);
  RecordChange change;
  EXPECT_EQ(CodeThrownBy([&] { SetLink(change, "2", "k2"); }), kAccountNotWritten);
  change.Undo(lock_);
  EXPECT_TRUE(std::filesystem::is_directory(account_files::kRecord));
  EXPECT_THAT(Log(), ElementsAre("user Failed to set zomi config for zomiIDSerial:2"));
}

TEST_F(RecordChangeTest, AFifoInTheRecordsPlaceDoesNotHang) {
  ASSERT_EQ(mkfifo(account_files::kRecord, 0600), 0);
  RecordChange change;
  platform().FailNext("KLIBCFileSetKeyValue");  // the scripted platform would open it
  EXPECT_EQ(CodeThrownBy([&] { SetLink(change, "2", "k2"); }), kAccountNotWritten);
  change.Undo(lock_);
}

TEST_F(RecordChangeTest, WithoutTheFolderThereIsNothingToTakeBack) {
  RecordChange change;
  platform().FailNext("KLIBCFileSetKeyValue");
  EXPECT_EQ(CodeThrownBy([&] { SetLink(change, "2", "k2"); }), kAccountNotWritten);
  ClearLog();
  std::filesystem::rename(kFolder, kFolder.string() + ".away");
  change.Undo(lock_);
  std::filesystem::rename(kFolder.string() + ".away", kFolder);
  EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(RecordChangeTest, AFailedUndoIsLoggedAndLeavesNothingBehind) {
  WriteRecord(kBefore);
  RecordChange change;
  SetLink(change, "2", "k2");
  WriteRecord(ReadRecord() + std::string(8 * 1024 * 1024, '#'));
  change.Undo(lock_);
  EXPECT_THAT(LogWithPriorities(),
              ElementsAre(std::string("user.err record_change Failed to restore ") +
                          account_files::kRecord + ", reason=File too large"));
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(kFolder), {}), 2) << "with the lock";
}

}  // namespace
}  // namespace nodelink
