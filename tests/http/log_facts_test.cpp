#include "http/log_facts.h"

#include <fstream>
#include <limits>
#include <set>
#include <sstream>
#include <string>

#include "base/message.h"
#include "http/messages.h"
#include "tests/support/platform_fixture.h"

namespace nodelink::http {
namespace {

using testing::ElementsAre;

constexpr LogSite kSender{"zomi_https_req_send", 12};

// As a worker's LogError gives it.
__attribute__((format(printf, 2, 3))) std::optional<LogFact> Fact(LogSite site, const char* format,
                                                                  ...) {
  va_list values;
  va_start(values, format);
  auto fact = FactOf(site, format, values);
  va_end(values);
  return fact;
}

class LogFactsTest : public PlatformTest {};

// --- The table. ---

using Formats = std::set<std::string>;  // "FILE FORMAT" each

Formats Table() {
  Formats formats;
  for (std::size_t index = 0; index < FormatCount(); ++index) {
    const LogFormat& format = FormatAt(index);
    formats.insert(std::string(format.file) + " " + std::string(format.format));
  }
  return formats;
}

// Those of the files that the worker consists of, from the list of all formats of the program.
Formats Listed() {
  Formats formats;
  std::ifstream list(LOG_FORMATS);
  for (std::string row; std::getline(list, row);) {
    std::istringstream columns(row);
    std::string priority;
    std::string file;
    std::string line;
    std::string format;
    columns >> priority >> file >> line >> std::ws;
    std::getline(columns, format);
    if (file == "zomi_https_req_send" || file == "zomi_token_generation" ||
        file == "zomi_agent_name_get") {
      EXPECT_EQ(priority, "user.err") << row;
      formats.insert(file.append(" ").append(format));
    }
  }
  return formats;
}

TEST_F(LogFactsTest, TheTableHoldsWhatTheListOfAllFormatsSays) {
  EXPECT_THAT(Table(), testing::ContainerEq(Listed()));
  EXPECT_GT(Listed().size(), 20U);
  EXPECT_EQ(Table().size(), FormatCount()) << "a format stands there twice";
}

TEST_F(LogFactsTest, ConversionsAreOneLetterEach) {
  EXPECT_EQ(ConversionsOf("nothing"), "");
  EXPECT_EQ(ConversionsOf("%s, %d and %ld: %s"), "sdds");
  EXPECT_EQ(ConversionsOf("[%s][0x%04X %s:%d]"), "s");
}

// --- From the worker's line to the program's. ---

TEST_F(LogFactsTest, AFactIsTheLineThatTheWorkerWouldWrite) {
  http::Log(*Fact(kSender, "%s, Failed to request packages, httpResponseCode=%ld, data=%s",
                  "a/path", -500L, "100%s"));
  http::Log(
      *Fact(kSender, "Failed to set curl opt error:(%d)%s", std::numeric_limits<int>::min(), ""));
  http::Log(*Fact({"zomi_token_generation", 34}, "Parameter error"));
  EXPECT_THAT(
      LogWithLines(),
      ElementsAre(
          "zomi_https_req_send:12 a/path, Failed to request packages, httpResponseCode=-500, "
          "data=100%s",
          "zomi_https_req_send:12 Failed to set curl opt error:(-2147483648)",
          "zomi_token_generation:34 Parameter error"));
}

TEST_F(LogFactsTest, ANullTextIsWrittenAsTheCLibraryDoes) {
  const char* volatile nothing = nullptr;
  http::Log(*Fact(kSender, "URL encoding failed: %s", nothing));
  EXPECT_THAT(Log(), ElementsAre("zomi_https_req_send URL encoding failed: (null)"));
}

TEST_F(LogFactsTest, TheErrorTripleIsOfThePlatformOfWhoeverLogs) {
  const auto fact =
      Fact({"zomi_token_generation", 67}, "Serial number is invalid: [%s][0x%04X %s:%d]", "NL1",
           0xffffU, "the_workers.c", 99);
  platform().SetFailureTriple({0x1A, "device.c", 7});
  platform().SetError();
  http::Log(*fact);
  EXPECT_THAT(LogWithLines(), ElementsAre("zomi_token_generation:67 Serial number is invalid: "
                                          "[NL1][0x001A device.c:7]"));
}

TEST_F(LogFactsTest, LongTextsAreCut) {
  const auto fact =
      Fact(kSender, "URL encoding failed: %s", std::string(kLongestMessage + 1, 'x').c_str());
  EXPECT_EQ(std::get<std::string>(fact->values.at(0)).size(), kLongestMessage);
}

TEST_F(LogFactsTest, OtherLinesAreNoFacts) {
  EXPECT_FALSE(Fact(kSender, "Parameter error"));  // of another file
  EXPECT_FALSE(Fact({"user", 1}, "URL encoding failed: %s", "x"));
  EXPECT_FALSE(Fact(kSender, "URL encoding failed: %s.", "x"));
}

// --- What a hostile worker can make the program write. ---

std::string AnswerWithFact(std::int64_t format, std::int64_t line, const std::string& text) {
  base::MessageWriter writer;
  writer.Number(2).Number(0).Text("").Number(200).Text("");  // an answer to a post
  writer.Number(1).Number(format).Number(line).Text(text);
  return writer.Take();
}

TEST_F(LogFactsTest, AFactOutsideOfTheTableIsNone) {
  const Question question = HttpRequest{};
  const auto count = static_cast<std::int64_t>(FormatCount());
  EXPECT_TRUE(DecodeAnswer(AnswerWithFact(0, 1, "x"), question));
  for (const std::int64_t format : {std::int64_t{-1}, count, INT64_MIN, INT64_MAX}) {
    EXPECT_FALSE(DecodeAnswer(AnswerWithFact(format, 1, "x"), question)) << format;
  }
  for (const std::int64_t line : {std::int64_t{-1}, std::int64_t{100'001}, INT64_MAX}) {
    EXPECT_FALSE(DecodeAnswer(AnswerWithFact(0, line, "x"), question)) << line;
  }
  EXPECT_FALSE(DecodeAnswer(AnswerWithFact(1, 1, "x"), question)) << "this one takes no text";
}

// Whatever its values say, it stays a line of its file and its format.
TEST_F(LogFactsTest, AHostileTextStaysInItsPlace) {
  const auto answer = DecodeAnswer(AnswerWithFact(0, 1, "%n%s user:1 Change"), HttpRequest{});
  ASSERT_TRUE(answer);
  http::Log(answer->log.at(0));
  ASSERT_EQ(LogWithLines().size(), 1U);
  EXPECT_THAT(LogWithLines().at(0),
              testing::StartsWith("zomi_https_req_send:1 URL encoding failed: %n%s"));
}

}  // namespace
}  // namespace nodelink::http
