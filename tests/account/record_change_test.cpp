#include "account/record_backup.h"

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "account/record_test.h"

namespace nodelink {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

const std::filesystem::path kFolder = std::filesystem::path(record::kPath).parent_path();

class RecordBackupTest : public PlatformTest {};

TEST_F(RecordBackupTest, PutsTheRecordBackByteForByte) {
  const std::string content("zomiID=\"a\"\n\0 no line end", 23);
  WriteRecord(content);
  const RecordBackup backup;
  test_files::Write(record::kPath, "something else", 0666);
  EXPECT_TRUE(backup.Restore());
  EXPECT_EQ(ReadRecord(), content);
  EXPECT_EQ(RecordProtection(), "600 0:0");
  EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(RecordBackupTest, PutsARemovedRecordBack) {
  WriteRecord("zomiID=\"a\"\n");
  const RecordBackup backup;
  RemoveRecord();
  EXPECT_TRUE(backup.Restore());
  EXPECT_EQ(ReadRecord(), "zomiID=\"a\"\n");
}

TEST_F(RecordBackupTest, EmptyRecordIsNotAMissingOne) {
  WriteRecord("");
  const RecordBackup backup;
  WriteRecord("zomiID=\"a\"\n");
  EXPECT_TRUE(backup.Restore());
  EXPECT_TRUE(HasRecord());
  EXPECT_EQ(ReadRecord(), "");
}

TEST_F(RecordBackupTest, RemovesARecordThatWasNotThere) {
  const RecordBackup backup;
  WriteRecord("zomiID=\"a\"\n");
  EXPECT_TRUE(backup.Restore());
  EXPECT_FALSE(HasRecord());
  EXPECT_TRUE(backup.Restore());
}

TEST_F(RecordBackupTest, RecordThatCannotBeReadThrows) {
  std::filesystem::create_directory(record::kPath);
  EXPECT_EQ(CodeThrownBy([] { const RecordBackup backup; }), 6U);
  RemoveRecord();
  WriteRecord(std::string(8 * 1024 * 1024 + 1, 'x'));
  EXPECT_EQ(CodeThrownBy([] { const RecordBackup backup; }), 6U);
}

TEST_F(RecordBackupTest, FifoInTheRecordsPlaceDoesNotHang) {
  ASSERT_EQ(mkfifo(record::kPath, 0600), 0);
  EXPECT_EQ(CodeThrownBy([] { const RecordBackup backup; }), 6U);
}

TEST_F(RecordBackupTest, FailedRestoreIsLoggedAndLeavesNothingBehind) {
  WriteRecord("zomiID=\"a\"\n");
  const RecordBackup backup;
  RemoveRecord();
  std::filesystem::create_directories(std::string(record::kPath) + "/full");
  EXPECT_FALSE(backup.Restore());
  EXPECT_THAT(LogWithPriorities(),
              ElementsAre(std::string("user.err record_backup Failed to restore ") + record::kPath +
                          ", reason=Is a directory"));
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(kFolder), {}), 1);
  std::filesystem::remove_all(record::kPath);
}

}  // namespace
}  // namespace nodelink
