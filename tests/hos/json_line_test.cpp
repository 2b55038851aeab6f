#include "hos/linux/json_line.h"

#include <gtest/gtest.h>
#include <json/reader.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <ctime>
#include <sstream>
#include <vector>

#include "kivo/log.h"
#include "kivo/sysnotify.h"
#include "lab/files.h"

namespace hos_linux {
namespace {

constexpr char kEvents[] = "/usr/kivo/var/events.jsonl";
constexpr char kNotifications[] = "/usr/kivo/var/notifications.jsonl";

std::vector<Json::Value> Lines(const std::string& path) {
  std::vector<Json::Value> values;
  std::istringstream text(test_files::Read(path));
  for (std::string line; std::getline(text, line);) {
    std::istringstream one(line);
    Json::Value value;
    EXPECT_TRUE(Json::parseFromStream(Json::CharReaderBuilder(), one, &value, nullptr)) << line;
    values.push_back(value);
  }
  return values;
}

class JsonLine : public testing::Test {
 protected:
  void SetUp() override { test_files::Remove("/usr/kivo/var"); }
};

TEST_F(JsonLine, AnEventIsOneLine) {
  const std::time_t before = std::time(nullptr);
  ASSERT_GE(KIVOLogSet1(2, 1, 0x13A00001, "a@b.example", "two\nlines", "\"", ""), 0);
  ASSERT_GE(KIVOLogSet1(3, 0, 0x2, "", "", "", ""), 0);
  const auto lines = Lines(kEvents);
  ASSERT_EQ(lines.size(), 2U);
  EXPECT_GE(lines[0]["time"].asInt64(), before);
  EXPECT_LE(lines[0]["time"].asInt64(), std::time(nullptr));
  EXPECT_EQ(lines[0]["type"], 2);
  EXPECT_EQ(lines[0]["level"], 1);
  EXPECT_EQ(lines[0]["event"], "0x13A00001");
  EXPECT_EQ(lines[0]["texts"][0], "a@b.example");
  EXPECT_EQ(lines[0]["texts"][1], "two\nlines");
  EXPECT_EQ(lines[0]["texts"].size(), 4U);
  EXPECT_EQ(lines[1]["event"], "0x00000002");
  EXPECT_EQ(test_files::ModeOf(kEvents), 0600U);
}

TEST_F(JsonLine, ANotificationIsOneLine) {
  KLIBCSZHASH* params = KLIBCSzHashAlloc(1024);
  ASSERT_GE(KIVOSysNotifySendNotifiction("zomi_deletion_logout", params), 0);
  KLIBCSzHashSetValue(params, "%EMAIL%", "ü@b.example");
  KLIBCSzHashSetValue(params, "%LINK%", "https://x");
  ASSERT_GE(KIVOSysNotifySendNotifiction("zomi_force_logout", params), 0);
  KLIBCSzHashFree(params);
  const auto lines = Lines(kNotifications);
  ASSERT_EQ(lines.size(), 2U);
  EXPECT_EQ(lines[0]["tag"], "zomi_deletion_logout");
  EXPECT_EQ(lines[0]["params"], Json::Value(Json::objectValue));
  EXPECT_EQ(lines[1]["params"]["%EMAIL%"], "ü@b.example");
  EXPECT_EQ(lines[1]["params"]["%LINK%"], "https://x");
  EXPECT_NE(test_files::Read(kNotifications).find("ü@b.example"), std::string::npos);
}

TEST_F(JsonLine, AHalfLineDoesNotSwallowTheNext) {
  test_files::Write(kEvents, "{\"time\": 1}\n{\"ti");
  ASSERT_GE(KIVOLogSet1(2, 1, 1, "", "", "", ""), 0);
  const std::string text = test_files::Read(kEvents);
  EXPECT_EQ(text.find("{\"time\": 1}\n{\"ti\n{"), 0U) << text;
}

TEST_F(JsonLine, ManyWritersEachGetTheirLine) {
  std::vector<pid_t> writers;
  for (int i = 0; i < 16; ++i) {
    const pid_t child = fork();
    if (child == 0) {
      int failures = 0;
      for (int n = 0; n < 20; ++n) {
        if (KIVOLogSet1(i, n, 1, "text", "", "", "") < 0) ++failures;
      }
      _exit(failures);
    }
    writers.push_back(child);
  }
  for (const pid_t writer : writers) {
    int status = -1;
    ASSERT_EQ(waitpid(writer, &status, 0), writer);
    EXPECT_EQ(status, 0);
  }
  EXPECT_EQ(Lines(kEvents).size(), 320U);
}

TEST_F(JsonLine, NeitherALinkNorAPipeIsWritten) {
  test_files::MakeFolder("/usr/kivo/var");
  ASSERT_EQ(symlink("/tmp/target", kEvents), 0);
  EXPECT_LT(KIVOLogSet1(2, 1, 1, "", "", "", ""), 0);
  EXPECT_FALSE(test_files::Exists("/tmp/target"));
  test_files::Remove(kEvents);
  ASSERT_EQ(mkfifo(kEvents, 0600), 0);
  EXPECT_LT(KIVOLogSet1(2, 1, 1, "", "", "", ""), 0);
}

}  // namespace
}  // namespace hos_linux
