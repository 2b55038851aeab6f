// What a program and its HTTP worker say to each other. Input: a message, read as each of its
// kinds.
#include "http/messages.h"

#include "fuzz/property.h"

namespace {

using namespace nodelink::http;

void CheckQuestion(const std::string& message) {
  if (const auto question = DecodeQuestion(message)) {
    fuzz::Check(Encode(*question) == message, "a question that is one is written as it was read");
  }
}

void CheckFact(const LogFact& fact) {
  fuzz::Check(fact.format < FormatCount(), "each line is of the table");
  const std::string conversions = ConversionsOf(FormatAt(fact.format).format);
  fuzz::Check(fact.values.size() == conversions.size(), "each conversion has its value");
  for (std::size_t index = 0; index < conversions.size(); ++index) {
    fuzz::Check(
        std::holds_alternative<std::string>(fact.values[index]) == (conversions[index] == 's'),
        "of its kind");
  }
}

void CheckAnswer(const std::string& message, const Question& question) {
  const auto answer = DecodeAnswer(message, question);
  if (!answer) return;
  fuzz::Check(Encode(*answer) == message, "an answer that is one is written as it was read");
  fuzz::Check(answer->result.index() == question.index(), "the answer is of its question's kind");
  fuzz::Check(answer->log.size() <= kMostFacts, "the lines have a limit");
  for (const LogFact& fact : answer->log) CheckFact(fact);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string message(data, data + size);
  CheckQuestion(message);
  CheckAnswer(message, DeviceApiQuestion{});
  CheckAnswer(message, nodelink::HttpRequest{});
  return 0;
}
