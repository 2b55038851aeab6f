#include "hos/linux/cloudservice_messages.h"

#include <cstdint>

#include "base/message.h"

namespace hos_linux {
namespace {

constexpr std::int64_t kMostFields = 16;
constexpr std::int64_t kLastStatus = 999;

}  // namespace

std::string Encode(const PostQuestion& question) {
  base::MessageWriter writer;
  writer.Text(question.url).Text(question.agent);
  writer.Number(static_cast<std::int64_t>(question.fields.size()));
  for (const auto& [name, value] : question.fields) writer.Text(name).Text(value);
  return writer.Take();
}

std::string Encode(const PostAnswer& answer) {
  base::MessageWriter writer;
  writer.Number(static_cast<std::int64_t>(answer.end)).Number(answer.status).Text(answer.text);
  return writer.Take();
}

std::optional<PostQuestion> DecodePostQuestion(const std::string& message) {
  base::MessageReader reader(message);
  PostQuestion question;
  question.url = reader.Text(kLongestPost);
  question.agent = reader.Text(kLongestPost);
  for (std::int64_t left = reader.Number(0, kMostFields); left > 0; --left) {
    std::string name = reader.Text(kLongestPost);
    question.fields.emplace_back(std::move(name), reader.Text(kLongestPost));
  }
  return reader.IsWhole() ? std::optional(std::move(question)) : std::nullopt;
}

std::optional<PostAnswer> DecodePostAnswer(const std::string& message) {
  base::MessageReader reader(message);
  PostAnswer answer;
  answer.end =
      static_cast<PostEnd>(reader.Number(0, static_cast<std::int64_t>(PostEnd::kNetworkFailed)));
  answer.status = static_cast<long>(reader.Number(0, kLastStatus));
  answer.text = reader.Text(kLargestAnswer);
  return reader.IsWhole() ? std::optional(std::move(answer)) : std::nullopt;
}

}  // namespace hos_linux
