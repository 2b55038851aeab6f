#include "http/messages.h"

#include <climits>

#include "base/message.h"
#include "core/error_code.h"

namespace nodelink::http {
namespace {

using base::MessageReader;
using base::MessageWriter;

enum class Kind : std::int64_t { kDeviceApi = 1, kPost = 2 };

constexpr std::size_t kLongestText = kLongestQuestion;
constexpr std::size_t kLongestName = 4096;
constexpr std::int64_t kMostItems = 1024;
constexpr int kMostLines = 100'000;
constexpr int kLastStatus = 999;

void Put(MessageWriter& writer, Kind kind) { writer.Number(static_cast<std::int64_t>(kind)); }

Kind TakeKind(MessageReader& reader) {
  return static_cast<Kind>(reader.Number(static_cast<std::int64_t>(Kind::kDeviceApi),
                                         static_cast<std::int64_t>(Kind::kPost)));
}

// A list is its length and its items.
template <typename Item, typename PutItem>
void PutList(MessageWriter& writer, const std::vector<Item>& items, PutItem put) {
  writer.Number(static_cast<std::int64_t>(items.size()));
  for (const Item& item : items) put(writer, item);
}

template <typename Item, typename TakeItem>
std::vector<Item> TakeList(MessageReader& reader, std::int64_t most, TakeItem take) {
  std::vector<Item> items;
  for (std::int64_t left = reader.Number(0, most); left > 0 && reader.IsGood(); --left) {
    items.push_back(take(reader));
  }
  return items;
}

// What may be missing is a flag and, if it is there, itself.
template <typename Value, typename PutValue>
void PutOptional(MessageWriter& writer, const std::optional<Value>& value, PutValue put) {
  writer.Number(value ? 1 : 0);
  if (value) put(writer, *value);
}

template <typename Value, typename TakeValue>
std::optional<Value> TakeOptional(MessageReader& reader, TakeValue take) {
  return reader.Number(0, 1) == 1 ? std::optional<Value>(take(reader)) : std::nullopt;
}

using Pair = std::pair<std::string, std::string>;

void PutText(MessageWriter& writer, const std::string& text) { writer.Text(text); }

std::string TakeText(MessageReader& reader) { return reader.Text(kLongestText); }

void PutPair(MessageWriter& writer, const Pair& pair) { writer.Text(pair.first).Text(pair.second); }

Pair TakePair(MessageReader& reader) {
  std::string name = reader.Text(kLongestText);
  return {std::move(name), reader.Text(kLongestText)};
}

void PutPairs(MessageWriter& writer, const std::vector<Pair>& pairs) {
  PutList(writer, pairs, PutPair);
}

std::vector<Pair> TakePairs(MessageReader& reader) {
  return TakeList<Pair>(reader, kMostItems, TakePair);
}

void Put(MessageWriter& writer, const DeviceApiQuestion& question) {
  Put(writer, Kind::kDeviceApi);
  writer.Text(question.host).Text(question.path);
  PutPairs(writer, question.params);
  writer.Text(question.account_id).Text(question.account_password);
  writer.Number(question.use_get).Number(question.quick);
  PutOptional(writer, question.serial_number, PutText);
  PutOptional(writer, question.user_agent, PutText);
}

DeviceApiQuestion TakeDeviceApiQuestion(MessageReader& reader) {
  DeviceApiQuestion question;
  question.host = TakeText(reader);
  question.path = TakeText(reader);
  question.params = TakePairs(reader);
  question.account_id = TakeText(reader);
  question.account_password = TakeText(reader);
  question.use_get = static_cast<int>(reader.Number(INT_MIN, INT_MAX));
  question.quick = static_cast<int>(reader.Number(INT_MIN, INT_MAX));
  question.serial_number = TakeOptional<std::string>(reader, TakeText);
  question.user_agent = TakeOptional<std::string>(reader, TakeText);
  return question;
}

void Put(MessageWriter& writer, const HttpRequest& request) {
  Put(writer, Kind::kPost);
  writer.Text(request.url).Text(request.user_agent);
  PutList(writer, request.header_sets, PutPairs);
  PutOptional(writer, request.form, PutPairs);
}

HttpRequest TakeHttpRequest(MessageReader& reader) {
  HttpRequest request;
  request.url = TakeText(reader);
  request.user_agent = TakeText(reader);
  request.header_sets = TakeList<HttpHeaders>(reader, kMostItems, TakePairs);
  request.form = TakeOptional<HttpForm>(reader, TakePairs);
  return request;
}

void Put(MessageWriter& writer, const DeviceApiAnswer& answer) {
  Put(writer, Kind::kDeviceApi);
  writer.Number(answer.code).Number(answer.transfer_result).Number(answer.http_status);
  writer.Text(answer.body);
}

DeviceApiAnswer TakeDeviceApiAnswer(MessageReader& reader) {
  DeviceApiAnswer answer;
  answer.code = static_cast<std::uint32_t>(reader.Number(kSuccess, kSystemError));
  answer.transfer_result = static_cast<std::int32_t>(reader.Number(0, INT_MAX));
  answer.http_status = static_cast<long>(reader.Number(0, kLastStatus));
  answer.body = reader.Text(kLargestBody);
  return answer;
}

void Put(MessageWriter& writer, const HttpAnswer& answer) {
  Put(writer, Kind::kPost);
  writer.Number(answer.error_code).Text(answer.error_message).Number(answer.status);
  writer.Text(answer.text);
}

HttpAnswer TakeHttpAnswer(MessageReader& reader) {
  HttpAnswer answer;
  answer.error_code = static_cast<int>(reader.Number(0, INT_MAX));
  answer.error_message = reader.Text(kLongestName);
  answer.status = static_cast<int>(reader.Number(0, kLastStatus));
  answer.text = reader.Text(kLargestBody);
  return answer;
}

void PutFact(MessageWriter& writer, const LogFact& fact) {
  writer.Number(static_cast<std::int64_t>(fact.format)).Number(fact.line);
  for (const auto& value : fact.values) {
    if (const auto* text = std::get_if<std::string>(&value)) {
      writer.Text(*text);
    } else {
      writer.Number(std::get<std::int64_t>(value));
    }
  }
}

// The format says how many values there are, and of which kind.
LogFact TakeFact(MessageReader& reader) {
  LogFact fact;
  fact.format =
      static_cast<std::size_t>(reader.Number(0, static_cast<std::int64_t>(FormatCount()) - 1));
  fact.line = static_cast<int>(reader.Number(0, kMostLines));
  for (const char letter : ConversionsOf(FormatAt(fact.format).format)) {
    if (letter == 's') {
      fact.values.emplace_back(reader.Text(kLongestMessage));
    } else {
      fact.values.emplace_back(reader.Number(INT64_MIN, INT64_MAX));
    }
  }
  return fact;
}

// An answer is one that came, or a failure that the sender has a code for.
bool IsPossible(const DeviceApiAnswer& answer) {
  constexpr long kOk = 200;
  constexpr long kBadRequest = 400;
  if (answer.code != kSuccess) {
    return answer.body.empty() && (answer.code == kRequestNotSent || answer.code == kSystemError);
  }
  return answer.http_status == kOk || answer.http_status == kBadRequest;
}

bool IsPossible(const HttpAnswer&) { return true; }

template <typename Result>
std::optional<Answer> Take(MessageReader& reader, Result (*take)(MessageReader&)) {
  Result result = take(reader);
  const bool possible = IsPossible(result);
  Answer answer = {std::move(result), TakeList<LogFact>(reader, kMostFacts, TakeFact)};
  return reader.IsWhole() && possible ? std::optional(std::move(answer)) : std::nullopt;
}

}  // namespace

std::string Encode(const Question& question) {
  MessageWriter writer;
  std::visit([&writer](const auto& asked) { Put(writer, asked); }, question);
  return writer.Take();
}

std::string Encode(const Answer& answer) {
  MessageWriter writer;
  std::visit([&writer](const auto& result) { Put(writer, result); }, answer.result);
  PutList(writer, answer.log, PutFact);
  return writer.Take();
}

std::optional<Question> DecodeQuestion(const std::string& message) {
  MessageReader reader(message);
  Question question;
  if (TakeKind(reader) == Kind::kDeviceApi) {
    question = TakeDeviceApiQuestion(reader);
  } else {
    question = TakeHttpRequest(reader);
  }
  return reader.IsWhole() ? std::optional(std::move(question)) : std::nullopt;
}

std::optional<Answer> DecodeAnswer(const std::string& message, const Question& question) {
  MessageReader reader(message);
  const bool is_device_api = std::holds_alternative<DeviceApiQuestion>(question);
  if (TakeKind(reader) != (is_device_api ? Kind::kDeviceApi : Kind::kPost)) return std::nullopt;
  return is_device_api ? Take(reader, TakeDeviceApiAnswer) : Take(reader, TakeHttpAnswer);
}

}  // namespace nodelink::http
