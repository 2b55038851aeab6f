#include "http/messages.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "core/error_code.h"

namespace nodelink::http {
namespace {

using Pairs = std::vector<std::pair<std::string, std::string>>;

const std::string kBytes("\0 \xff\n%s", 6);

DeviceApiQuestion FullDeviceApiQuestion() {
  return {"https://host", "path", {{"a", kBytes}, {"", ""}}, "id", "password", INT_MAX, INT_MIN,
          "NL00000001A",  "agent"};
}

HttpRequest FullRequest() {
  return {
      "https://host/path", "agent", {{{"Accept", "a"}, {"B", kBytes}}, {}}, HttpForm{{"k", "v"}}};
}

std::vector<LogFact> FullLog() {
  return {{0, 17, {kBytes}}, {1, 100'000, {}}, {9, 0, {std::int64_t{-3}, "text"}}};
}

Answer FullDeviceApiAnswer() {
  return {DeviceApiAnswer{kSuccess, INT_MAX, 400, kBytes}, FullLog()};
}

Answer FullHttpAnswer() { return {HttpAnswer{INT_MAX, "message", 999, kBytes}, FullLog()}; }

// One of each kind, as full and as empty as can be.
std::vector<Question> Questions() {
  return {FullDeviceApiQuestion(), DeviceApiQuestion{}, FullRequest(), HttpRequest{}};
}

std::vector<Answer> Answers() {
  return {FullDeviceApiAnswer(), Answer{DeviceApiAnswer{kRequestNotSent, 28, 0, ""}, {}},
          FullHttpAnswer(), Answer{HttpAnswer{}, {}}};
}

Question QuestionFor(const Answer& answer) {
  return std::holds_alternative<DeviceApiAnswer>(answer.result) ? Question(DeviceApiQuestion{})
                                                                : Question(HttpRequest{});
}

// --- Round trips. ---

TEST(MessagesTest, ADeviceApiQuestionArrivesWhole) {
  const DeviceApiQuestion asked = FullDeviceApiQuestion();
  const auto decoded = DecodeQuestion(Encode(Question(asked)));
  ASSERT_TRUE(decoded);
  const auto& question = std::get<DeviceApiQuestion>(*decoded);
  EXPECT_EQ(question.host, asked.host);
  EXPECT_EQ(question.path, asked.path);
  EXPECT_EQ(question.params, asked.params);
  EXPECT_EQ(question.account_id, asked.account_id);
  EXPECT_EQ(question.account_password, asked.account_password);
  EXPECT_EQ(question.use_get, asked.use_get);
  EXPECT_EQ(question.quick, asked.quick);
  EXPECT_EQ(question.serial_number, asked.serial_number);
  EXPECT_EQ(question.user_agent, asked.user_agent);
}

TEST(MessagesTest, ARequestArrivesWhole) {
  const HttpRequest asked = FullRequest();
  const auto decoded = DecodeQuestion(Encode(Question(asked)));
  ASSERT_TRUE(decoded);
  const auto& request = std::get<HttpRequest>(*decoded);
  EXPECT_EQ(request.url, asked.url);
  EXPECT_EQ(request.user_agent, asked.user_agent);
  EXPECT_EQ(request.header_sets, asked.header_sets);
  EXPECT_EQ(request.form, asked.form);
}

TEST(MessagesTest, MissingIsNotEmpty) {
  DeviceApiQuestion question;
  EXPECT_FALSE(
      std::get<DeviceApiQuestion>(*DecodeQuestion(Encode(Question(question)))).serial_number);
  question.serial_number = "";
  EXPECT_TRUE(
      std::get<DeviceApiQuestion>(*DecodeQuestion(Encode(Question(question)))).serial_number);
  EXPECT_FALSE(std::get<HttpRequest>(*DecodeQuestion(Encode(Question(HttpRequest{})))).form);
}

void ExpectFullLog(const std::vector<LogFact>& log) {
  const std::vector<LogFact> expected = FullLog();
  ASSERT_EQ(log.size(), expected.size());
  for (std::size_t index = 0; index < log.size(); ++index) {
    EXPECT_EQ(log[index].format, expected[index].format);
    EXPECT_EQ(log[index].line, expected[index].line);
    EXPECT_EQ(log[index].values, expected[index].values);
  }
}

TEST(MessagesTest, ADeviceApiAnswerArrivesWhole) {
  const auto decoded = DecodeAnswer(Encode(FullDeviceApiAnswer()), DeviceApiQuestion{});
  ASSERT_TRUE(decoded);
  const auto& answer = std::get<DeviceApiAnswer>(decoded->result);
  EXPECT_EQ(answer.code, std::uint32_t{kSuccess});
  EXPECT_EQ(answer.transfer_result, INT_MAX);
  EXPECT_EQ(answer.http_status, 400);
  EXPECT_EQ(answer.body, kBytes);
  ExpectFullLog(decoded->log);
}

TEST(MessagesTest, AnHttpAnswerArrivesWhole) {
  const auto decoded = DecodeAnswer(Encode(FullHttpAnswer()), HttpRequest{});
  ASSERT_TRUE(decoded);
  const auto& answer = std::get<HttpAnswer>(decoded->result);
  EXPECT_EQ(answer.error_code, INT_MAX);
  EXPECT_EQ(answer.error_message, "message");
  EXPECT_EQ(answer.status, 999);
  EXPECT_EQ(answer.text, kBytes);
  ExpectFullLog(decoded->log);
}

// The longest body, and a quote of it in the log for each time that it came.
TEST(MessagesTest, TheLargestAnswerFits) {
  const std::string quote(kLongestMessage, 'x');
  Answer answer = {HttpAnswer{0, "", 200, std::string(kLargestBody, 'x')}, {}};
  for (int time = 0; time < 3; ++time) answer.log.push_back({0, 1, {quote}});
  const std::string message = Encode(answer);
  EXPECT_LE(message.size(), kLongestAnswer);
  EXPECT_TRUE(DecodeAnswer(message, HttpRequest{}));
}

// --- What is none. ---

TEST(MessagesTest, EveryTruncationIsNone) {
  for (const Question& question : Questions()) {
    const std::string message = Encode(question);
    ASSERT_TRUE(DecodeQuestion(message));
    for (std::size_t length = 0; length < message.size(); ++length) {
      EXPECT_FALSE(DecodeQuestion(message.substr(0, length))) << length;
    }
  }
  for (const Answer& answer : Answers()) {
    const std::string message = Encode(answer);
    ASSERT_TRUE(DecodeAnswer(message, QuestionFor(answer)));
    for (std::size_t length = 0; length < message.size(); ++length) {
      EXPECT_FALSE(DecodeAnswer(message.substr(0, length), QuestionFor(answer))) << length;
    }
  }
}

TEST(MessagesTest, MoreBytesAreNone) {
  for (const Question& question : Questions()) {
    EXPECT_FALSE(DecodeQuestion(Encode(question) + '\0'));
  }
  for (const Answer& answer : Answers()) {
    EXPECT_FALSE(DecodeAnswer(Encode(answer) + '\0', QuestionFor(answer)));
  }
}

void ExpectInBounds(const Answer& answer) {
  if (const auto* device = std::get_if<DeviceApiAnswer>(&answer.result)) {
    EXPECT_TRUE(device->code == kSuccess ? device->http_status == 200 || device->http_status == 400
                                         : device->body.empty());
    EXPECT_GE(device->transfer_result, 0);
  } else {
    EXPECT_THAT(std::get<HttpAnswer>(answer.result).status,
                testing::AllOf(testing::Ge(0), testing::Le(999)));
  }
  for (const LogFact& fact : answer.log) {
    ASSERT_LT(fact.format, FormatCount());
    EXPECT_EQ(fact.values.size(), ConversionsOf(FormatAt(fact.format).format).size());
  }
}

// Lengths among them: what still is a message is as good as one that was meant so.
TEST(MessagesTest, NoChangedByteLeadsOutOfBounds) {
  for (const Answer& answer : Answers()) {
    const std::string message = Encode(answer);
    for (std::size_t place = 0; place < message.size(); ++place) {
      for (const int change : {0x01, 0x02, 0x40, 0x80, 0xff}) {
        std::string changed = message;
        changed[place] = static_cast<char>(changed[place] ^ change);
        if (const auto decoded = DecodeAnswer(changed, QuestionFor(answer))) {
          ExpectInBounds(*decoded);
        }
      }
    }
  }
}

TEST(MessagesTest, NoChangedByteOfAQuestionMakesMoreOfIt) {
  for (const Question& question : Questions()) {
    const std::string message = Encode(question);
    for (std::size_t place = 0; place < message.size(); ++place) {
      for (const int change : {0x01, 0x02, 0x40, 0x80, 0xff}) {
        std::string changed = message;
        changed[place] = static_cast<char>(changed[place] ^ change);
        if (const auto decoded = DecodeQuestion(changed)) {
          EXPECT_EQ(Encode(*decoded), changed);
        }
      }
    }
  }
}

TEST(MessagesTest, AnAnswerOfTheOtherKindIsNone) {
  EXPECT_FALSE(DecodeAnswer(Encode(FullDeviceApiAnswer()), HttpRequest{}));
  EXPECT_FALSE(DecodeAnswer(Encode(FullHttpAnswer()), DeviceApiQuestion{}));
  EXPECT_FALSE(DecodeAnswer(Encode(Question(DeviceApiQuestion{})), DeviceApiQuestion{}));
  EXPECT_FALSE(DecodeAnswer(Encode(Question(HttpRequest{})), HttpRequest{}));
}

TEST(MessagesTest, AnUnknownKindIsNone) {
  for (const std::int64_t kind : {0, 3, -1}) {
    std::string message = Encode(Question(HttpRequest{}));
    std::memcpy(message.data(), &kind, sizeof kind);
    EXPECT_FALSE(DecodeQuestion(message)) << kind;
  }
}

// --- Answers that the sender never gives. ---

bool IsAnswer(const DeviceApiAnswer& answer) {
  return DecodeAnswer(Encode(Answer{answer, {}}), DeviceApiQuestion{}).has_value();
}

TEST(MessagesTest, SuccessHasAStatusOfSuccess) {
  EXPECT_TRUE(IsAnswer({kSuccess, 0, 200, "{}"}));
  EXPECT_TRUE(IsAnswer({kSuccess, 0, 400, ""}));
  for (const long status : {-1L, 0L, 199L, 201L, 302L, 399L, 401L, 404L, 500L, 999L, 1000L}) {
    EXPECT_FALSE(IsAnswer({kSuccess, 0, status, "{}"})) << status;
  }
}

TEST(MessagesTest, AFailureHasACodeOfTheSendersAndNoBody) {
  EXPECT_TRUE(IsAnswer({kRequestNotSent, 28, 0, ""}));
  EXPECT_TRUE(IsAnswer({kSystemError, 0, 500, ""}));
  EXPECT_FALSE(IsAnswer({kRequestNotSent, 28, 0, "body"}));
  EXPECT_FALSE(IsAnswer({kSystemError, 0, 200, "body"}));
  for (std::uint32_t code = 0; code < 100; ++code) {
    const bool senders = code == kRequestNotSent || code == kSystemError;
    EXPECT_EQ(IsAnswer({code, 0, 0, ""}), senders) << code;
  }
}

TEST(MessagesTest, NumbersOfATransferHaveBounds) {
  EXPECT_FALSE(IsAnswer({kRequestNotSent, -1, 0, ""}));
  for (const HttpAnswer& answer :
       {HttpAnswer{-1, "", 0, ""}, HttpAnswer{0, "", -1, ""}, HttpAnswer{0, "", 1000, ""}}) {
    EXPECT_FALSE(DecodeAnswer(Encode(Answer{answer, {}}), HttpRequest{}));
  }
}

TEST(MessagesTest, LargerTextsAreNone) {
  EXPECT_TRUE(IsAnswer({kSuccess, 0, 200, std::string(kLargestBody, 'x')}));
  EXPECT_FALSE(IsAnswer({kSuccess, 0, 200, std::string(kLargestBody + 1, 'x')}));
  EXPECT_FALSE(
      DecodeAnswer(Encode(Answer{HttpAnswer{0, "", 200, std::string(kLargestBody + 1, 'x')}, {}}),
                   HttpRequest{}));
  EXPECT_FALSE(DecodeAnswer(Encode(Answer{HttpAnswer{0, std::string(4097, 'x'), 0, ""}, {}}),
                            HttpRequest{}));
}

TEST(MessagesTest, MoreFactsAreNone) {
  Answer answer = {HttpAnswer{}, std::vector<LogFact>(kMostFacts, LogFact{1, 1, {}})};
  EXPECT_TRUE(DecodeAnswer(Encode(answer), HttpRequest{}));
  answer.log.push_back({1, 1, {}});
  EXPECT_FALSE(DecodeAnswer(Encode(answer), HttpRequest{}));
}

}  // namespace
}  // namespace nodelink::http
