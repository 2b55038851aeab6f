#include "core/include/internal/json_utils.h"

#include <sys/stat.h>

#include <filesystem>
#include <string>

#include "core/zomi_exception.h"
#include "tests/support/platform_fixture.h"
#include "tests/support/test_name.h"

namespace nodelink {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr char kFile[] = "/tmp/json_utils_test.json";

template <typename Flow>
std::string WhatOf(Flow flow) {
  try {
    flow();
  } catch (const ZomiException& failure) {
    return failure.what();
  }
  return "";
}

class JsonUtilsTest : public PlatformTest {
 protected:
  ~JsonUtilsTest() override { std::filesystem::remove_all(kFile); }
};

TEST_F(JsonUtilsTest, ParsesAText) {
  Json::Value value;
  ParseJson(R"({"code": "good"})", value);
  EXPECT_EQ(value["code"].asString(), "good");
  EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(JsonUtilsTest, SaysNothingOfTheShape) {
  Json::Value value;
  ParseJson("[]", value);
  EXPECT_FALSE(value.isObject());
  EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(JsonUtilsTest, OldContentOfTheValueIsGone) {
  Json::Value value;
  value["old"] = 1;
  ParseJson(R"({"new": 2})", value);
  EXPECT_THAT(value.getMemberNames(), ElementsAre("new"));
}

class BadJsonTest : public JsonUtilsTest, public testing::WithParamInterface<Sample> {};

TEST_P(BadJsonTest, IsLoggedWholeAndThrowsWrongJsonFormat) {
  Json::Value value;
  value["old"] = 1;
  const std::string what = WhatOf([&] { ParseJson(GetParam().text, value); });
  EXPECT_THAT(what, testing::StartsWith("Wrong JSON format [code=2]\n"));
  EXPECT_THAT(LogWithLines(), ElementsAre("include/internal/json_utils:13 Failed to parse json: " +
                                          GetParam().text));
  EXPECT_TRUE(value.isNull());
}

INSTANTIATE_TEST_SUITE_P(Texts, BadJsonTest,
                         testing::Values("", "<html>%s%n</html>", "{", "{} {}", "{\"a\":1,\n",
                                         std::string(20'000, '['), "nul"));

TEST_F(JsonUtilsTest, ParseFailureIsLoggedAtPriorityError) {
  Json::Value value;
  EXPECT_THROW(ParseJson("", value), ZomiException);
  EXPECT_THAT(LogWithPriorities(),
              ElementsAre("user.err include/internal/json_utils Failed to parse json: "));
}

TEST_F(JsonUtilsTest, SavesAPrivateFile) {
  Json::Value value;
  value["access_token"] = "secret";
  SaveJson(kFile, value);
  Json::Value read;
  ParseJson(test_files::Read(kFile), read);
  EXPECT_EQ(read, value);
  struct stat status {};
  ASSERT_EQ(stat(kFile, &status), 0);
  EXPECT_EQ(status.st_mode & 07777U, 0600U);
}

TEST_F(JsonUtilsTest, FileThatCannotBeWrittenIsLoggedAndThrowsWrongJsonFormat) {
  const std::string path = "/tmp/no such folder/%s.json";
  const std::string what = WhatOf([&] { SaveJson(path, Json::Value()); });
  EXPECT_THAT(what, testing::StartsWith("Wrong JSON format [code=2]\n"));
  EXPECT_THAT(LogWithLines(),
              ElementsAre("include/internal/json_utils:31 Failed to save json: " + path));
  EXPECT_THAT(LogWithPriorities(),
              ElementsAre("user.err include/internal/json_utils Failed to save json: " + path));
}

TEST_F(JsonUtilsTest, FailedSaveLeavesWhatWasThere) {
  std::filesystem::create_directory(kFile);
  EXPECT_THROW(SaveJson(kFile, Json::Value()), ZomiException);
  EXPECT_TRUE(std::filesystem::is_empty(kFile));
}

}  // namespace
}  // namespace nodelink
