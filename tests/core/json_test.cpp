#include "core/json.h"
#include "core/json_value.h"

#include <cstdint>
#include <filesystem>
#include <limits>
#include <string>

#include "tests/support/platform_fixture.h"
#include "tests/support/test_name.h"

namespace nodelink::json {
namespace {

using testing::ElementsAre;
using testing::Eq;
using testing::Optional;

constexpr char kFolder[] = "/tmp/json_test";
constexpr char kFile[] = "/tmp/json_test/value.json";
constexpr std::size_t kMebibyte = std::size_t{1024} * 1024;

Json::Value Parsed(const std::string& text) {
  Json::Value value;
  EXPECT_TRUE(fromString(text, value)) << text;
  return value;
}

class JsonTest : public PlatformTest {
 protected:
  JsonTest() {
    std::filesystem::remove_all(kFolder);
    std::filesystem::create_directory(kFolder);
  }
  ~JsonTest() override { std::filesystem::remove_all(kFolder); }
};

TEST_F(JsonTest, TextOfAValueIsOneLineWithMembersInOrderOfTheirNames) {
  EXPECT_EQ(toString(Parsed("{\"b\": [1, 2.5, null],\n \"a\": {\"x\": true}}")),
            R"({"a":{"x":true},"b":[1,2.5,null]})");
}

TEST_F(JsonTest, TextKeepsUtf8AndEscapesControlCharacters) {
  Json::Value value(Json::objectValue);
  value["name"] = "Zo\xc3\xab \"\n";
  EXPECT_EQ(toString(value), "{\"name\":\"Zo\xc3\xab \\\"\\n\"}");
}

TEST_F(JsonTest, CommentsAreReadAndNotWritten) {
  const Json::Value value = Parsed("// of the server\n{\"a\": 1 /* one */}\n// the end\n");
  EXPECT_EQ(toString(value), R"({"a":1})");
  ASSERT_TRUE(toFile(value, kFile));
  EXPECT_EQ(test_files::Read(kFile), "{\n  \"a\" : 1\n}\n");
}

TEST_F(JsonTest, EmptyObjectHasAText) { EXPECT_EQ(toString(Json::objectValue), "{}"); }

class NotJsonTest : public JsonTest, public testing::WithParamInterface<Sample> {};

TEST_P(NotJsonTest, DoesNotParseAndLeavesNull) {
  Json::Value value("old");
  EXPECT_FALSE(fromString(GetParam().text, value));
  EXPECT_TRUE(value.isNull());
}

TEST_P(NotJsonTest, DoesNotParseFromAFileEither) {
  test_files::Write(kFile, GetParam().text);
  Json::Value value("old");
  EXPECT_FALSE(fromFile(kFile, value));
  EXPECT_TRUE(value.isNull());
}

std::string Nested(std::size_t depth) { return std::string(depth, '[') + std::string(depth, ']'); }

INSTANTIATE_TEST_SUITE_P(Texts, NotJsonTest,
                         testing::Values("", " ", "{", "}", "{\"a\":}", "{\"a\":1", "{} x", "[1,2",
                                         "tru", "<html></html>", "\"unterminated", "{\"a\":1}{}",
                                         std::string("\0", 1), "\xff\xfe", "{'a':1}", "nan",
                                         Nested(1'001), Nested(100'000),
                                         std::string(1'000'000, '['), std::string(100'000, '{')));

// A list of ones takes a hundred times its text's size in memory.
TEST_F(JsonTest, TooManyValuesAreNotRead) {
  const auto list = [](std::size_t commas) {
    std::string text = "[1";
    while (commas-- > 0) text += ",1";
    return text + "]";
  };
  Json::Value value;
  EXPECT_TRUE(fromString(list(9'999), value));
  EXPECT_EQ(value.size(), 10'000U);
  EXPECT_FALSE(fromString(list(10'000), value));
  EXPECT_TRUE(value.isNull());
}

TEST_F(JsonTest, SignsInTextsAndCommentsAreNoValues) {
  const std::string signs(50'000, ',');
  for (const std::string& text :
       {"[\"" + signs + "[{\"]", "[\"\\\"" + signs + "\\\\\"]", "{\"" + signs + "\":1}",
        "[1/*\"" + signs + "*/]", "//\"" + signs + "[\n[1]", "[1] // " + signs}) {
    Json::Value value;
    EXPECT_TRUE(fromString(text, value)) << text.substr(0, 10);
  }
}

// A quote or a slash must not hide from the counting what the reader takes for values.
TEST_F(JsonTest, ValuesBehindTextsAndCommentsCount) {
  std::string ones = "1";
  for (int count = 0; count < 10'001; ++count) ones += ",1";
  for (const std::string& text :
       {"[/*\"*/" + ones + "]", "[//\"\n" + ones + "]", "[//\"\r" + ones + "]",
        "[\"\\\\\"," + ones + "]", "[\"//\"," + ones + "]", "[\"/*\"," + ones + "]",
        "[/**/" + ones + "]", "[\"" + std::string(1, '\\') + "\"\"," + ones + "]"}) {
    Json::Value value;
    EXPECT_FALSE(fromString(text, value)) << text.substr(0, 10);
  }
}

TEST_F(JsonTest, CutCommentsAndTextsEndTheCounting) {
  for (const char* text : {"/", "/*", "/*/", "//", "\"", "\"\\", "[/", "[/x", "[1]/", "/\"[1]"}) {
    Json::Value value;
    EXPECT_FALSE(fromString(text, value)) << text;
  }
}

TEST_F(JsonTest, EveryCutOfATextIsRefusedOrRead) {
  const std::string text = R"({"a":{"b":[1,-2.5e3,"x\u00e9\n",true,false,null]},"c":""})";
  for (std::size_t length = 0; length < text.size(); ++length) {
    Json::Value value;
    EXPECT_FALSE(fromString(text.substr(0, length), value)) << length;
  }
  EXPECT_EQ(Parsed(text)["a"]["b"][1].asDouble(), -2500);
}

TEST_F(JsonTest, NulBehindTheValueDoesNotParse) {
  Json::Value value;
  EXPECT_FALSE(fromString(std::string("{}\0", 3), value));
  EXPECT_FALSE(fromString(std::string("{}\0{\"code\": \"good\"}", 19), value));
}

TEST_F(JsonTest, NulInsideATextIsKept) {
  EXPECT_EQ(Parsed(R"("a\u0000b")").asString(), std::string("a\0b", 3));
}

TEST_F(JsonTest, MissingFileDoesNotParse) {
  Json::Value value;
  EXPECT_FALSE(fromFile("/tmp/json_test/none.json", value));
}

// What is written must be read again.
TEST_F(JsonTest, AFileThatWouldNotBeReadIsNotWritten) {
  ASSERT_TRUE(toFile(Parsed("{\"a\":1}"), kFile));
  const std::string before = test_files::Read(kFile);
  std::string deep;  // 4 kB, of which the indentation makes 18 MB
  for (int count = 0; count < 9; ++count) deep += Nested(990) + ",";
  EXPECT_FALSE(toFile(Parsed("[" + deep + "1]"), kFile));
  EXPECT_FALSE(toFile(Json::Value(std::string(kMebibyte - 2, 'x')), kFile));
  Json::Value list(Json::arrayValue);
  for (int count = 0; count < 10'001; ++count) list.append(1);
  EXPECT_FALSE(toFile(list, kFile));
  EXPECT_EQ(test_files::Read(kFile), before);
}

TEST_F(JsonTest, TheLargestFileThatIsWrittenIsRead) {
  for (const std::size_t size : {kMebibyte - 3, kMebibyte - 4}) {
    ASSERT_TRUE(toFile(Json::Value(std::string(size, 'x')), kFile));
    Json::Value value;
    EXPECT_TRUE(fromFile(kFile, value));
  }
  Json::Value list(Json::arrayValue);
  for (int count = 0; count < 10'000; ++count) list.append(1);
  ASSERT_TRUE(toFile(list, kFile));
  Json::Value value;
  EXPECT_TRUE(fromFile(kFile, value));
}

TEST_F(JsonTest, StyledTextIsTheLibrarysUpToTheLimit) {
  const Json::Value value = Parsed("/* c */ {\"a\": [1, \"\xc3\xa9\", {}]} // d");
  EXPECT_EQ(StyledText(value, 1000), value.toStyledString());
  EXPECT_EQ(StyledText(value, 5).size(), 7U) << "with the line breaks around it";
}

TEST_F(JsonTest, FolderAndFifoAreNoFilesToParse) {
  Json::Value value;
  EXPECT_FALSE(fromFile(kFolder, value));
  ASSERT_EQ(mkfifo(kFile, 0600), 0);
  EXPECT_FALSE(fromFile(kFile, value));  // and comes back at once
}

TEST_F(JsonTest, FileOfOneMebibyteParsesAndALargerOneDoesNot) {
  const std::string text = "\"" + std::string(kMebibyte - 2, 'x') + "\"";
  test_files::Write(kFile, text);
  Json::Value value;
  EXPECT_TRUE(fromFile(kFile, value));
  test_files::Write(kFile, text + " ");
  EXPECT_FALSE(fromFile(kFile, value));
}

TEST_F(JsonTest, WrittenFileIsIndentedPrivateAndReadBack) {
  Json::Value value;
  value["name"] = "Zo\xc3\xab";
  EXPECT_TRUE(toFile(value, kFile));
  EXPECT_EQ(test_files::Read(kFile), "{\n  \"name\" : \"Zo\xc3\xab\"\n}\n");
  EXPECT_EQ(test_files::ModeOf(kFile), 0600U);
  Json::Value read;
  EXPECT_TRUE(fromFile(kFile, read));
  EXPECT_EQ(read, value);
}

TEST_F(JsonTest, OpenFileIsReplacedByAPrivateOne) {
  test_files::Write(kFile, std::string(5'000, 'x'), 0666);
  EXPECT_TRUE(toFile(Json::Value(1), kFile));
  EXPECT_EQ(test_files::Read(kFile), "1\n");
  EXPECT_EQ(test_files::ModeOf(kFile), 0600U);
  EXPECT_THAT(test_files::NamesIn(kFolder), ElementsAre("value.json"));
}

TEST_F(JsonTest, LinkInTheFilesPlaceIsReplacedAndNotFollowed) {
  const std::string target = std::string(kFolder) + "/target";
  test_files::Write(target, "precious");
  std::filesystem::create_symlink(target, kFile);
  EXPECT_TRUE(toFile(Json::Value(1), kFile));
  EXPECT_EQ(test_files::Read(target), "precious");
  EXPECT_FALSE(std::filesystem::is_symlink(kFile));
}

TEST_F(JsonTest, FailedWriteLeavesNothingBehind) {
  EXPECT_FALSE(toFile(Json::Value(1), "/tmp/json_test/none/value.json"));
  std::filesystem::create_directory(kFile);
  EXPECT_FALSE(toFile(Json::Value(1), kFile));
  EXPECT_THAT(test_files::NamesIn(kFolder), ElementsAre("value.json"));
}

// One object that has a member of every type.
const Json::Value& Zoo() {
  static const Json::Value zoo = Parsed(R"({
      "text": "hi", "empty": "", "number": 42, "low": -9223372036854775808,
      "high": 9223372036854775807, "real": 2.5, "zero": 0, "yes": true, "no": false,
      "null": null, "object": {"x": 1}, "list": [1]})");
  return zoo;
}

TEST_F(JsonTest, TextMemberReadsTextsNumbersAndFlags) {
  EXPECT_THAT(TextMember(Zoo(), "text"), Optional(Eq("hi")));
  EXPECT_THAT(TextMember(Zoo(), "empty"), Optional(Eq("")));
  EXPECT_THAT(TextMember(Zoo(), "number"), Optional(Eq("42")));
  EXPECT_THAT(TextMember(Zoo(), "low"), Optional(Eq("-9223372036854775808")));
  EXPECT_THAT(TextMember(Zoo(), "high"), Optional(Eq("9223372036854775807")));
  EXPECT_THAT(TextMember(Zoo(), "real"), Optional(Eq("2.5")));
  EXPECT_THAT(TextMember(Zoo(), "yes"), Optional(Eq("true")));
  EXPECT_THAT(TextMember(Zoo(), "no"), Optional(Eq("false")));
}

TEST_F(JsonTest, BoolMemberReadsFlagsAndNumbers) {
  EXPECT_THAT(BoolMember(Zoo(), "yes"), Optional(true));
  EXPECT_THAT(BoolMember(Zoo(), "no"), Optional(false));
  EXPECT_THAT(BoolMember(Zoo(), "number"), Optional(true));
  EXPECT_THAT(BoolMember(Zoo(), "zero"), Optional(false));
}

TEST_F(JsonTest, ObjectMemberReadsObjects) {
  ASSERT_NE(ObjectMember(Zoo(), "object"), nullptr);
  EXPECT_EQ((*ObjectMember(Zoo(), "object"))["x"].asInt(), 1);
}

TEST_F(JsonTest, MembersOfAnotherTypeCountAsMissing) {
  for (const char* name : {"object", "list", "none"}) {
    EXPECT_EQ(TextMember(Zoo(), name), std::nullopt) << name;
    EXPECT_EQ(FilledTextMember(Zoo(), name), std::nullopt) << name;
    EXPECT_EQ(BoolMember(Zoo(), name), std::nullopt) << name;
  }
  for (const char* name : {"text", "empty"}) {
    EXPECT_EQ(BoolMember(Zoo(), name), std::nullopt) << name;
  }
  for (const char* name : {"text", "number", "yes", "list", "none"}) {
    EXPECT_EQ(ObjectMember(Zoo(), name), nullptr) << name;
  }
}

TEST_F(JsonTest, ANullMemberIsThereAndEmpty) {
  EXPECT_EQ(TextMember(Zoo(), "null"), "");
  EXPECT_EQ(BoolMember(Zoo(), "null"), false);
  ASSERT_NE(ObjectMember(Zoo(), "null"), nullptr);
  EXPECT_TRUE(ObjectMember(Zoo(), "null")->empty());
}

TEST_F(JsonTest, ATextThatMustSaySomethingIsNeitherNullNorEmpty) {
  EXPECT_EQ(FilledTextMember(Zoo(), "null"), std::nullopt);
  EXPECT_EQ(FilledTextMember(Zoo(), "empty"), std::nullopt);
  EXPECT_EQ(FilledTextMember(Zoo(), "text"), TextMember(Zoo(), "text"));
  EXPECT_EQ(FilledTextMember(Zoo(), "number"), TextMember(Zoo(), "number"));
}

TEST_F(JsonTest, ValueThatIsNoObjectHasNoMembers) {
  for (const char* text : {"[]", "[{\"text\":1}]", "\"text\"", "1", "true", "null"}) {
    const Json::Value value = Parsed(text);
    EXPECT_EQ(TextMember(value, "text"), std::nullopt) << text;
    EXPECT_EQ(BoolMember(value, "text"), std::nullopt) << text;
    EXPECT_EQ(ObjectMember(value, "text"), nullptr) << text;
  }
}

TEST_F(JsonTest, LookingForAMemberDoesNotAddIt) {
  const Json::Value value = Parsed("{}");
  EXPECT_EQ(TextMember(value, "text"), std::nullopt);
  EXPECT_TRUE(value.empty());
}

}  // namespace
}  // namespace nodelink::json
