#include "base/message.h"

#include <cstring>

namespace base {

MessageWriter& MessageWriter::Number(std::int64_t number) {
  char bytes[sizeof number];
  std::memcpy(bytes, &number, sizeof number);
  bytes_.append(bytes, sizeof number);
  return *this;
}

MessageWriter& MessageWriter::Text(std::string_view text) {
  Number(static_cast<std::int64_t>(text.size()));
  bytes_ += text;
  return *this;
}

std::string_view MessageReader::Bytes(std::size_t count) {
  good_ = good_ && count <= rest_.size();
  if (!good_) return {};
  const std::string_view bytes = rest_.substr(0, count);
  rest_.remove_prefix(count);
  return bytes;
}

std::int64_t MessageReader::Number(std::int64_t least, std::int64_t most) {
  std::int64_t number = 0;
  const std::string_view bytes = Bytes(sizeof number);
  if (good_) {
    std::memcpy(&number, bytes.data(), sizeof number);
    good_ = number >= least && number <= most;
  }
  return good_ ? number : 0;
}

std::string MessageReader::Text(std::size_t longest) {
  const std::int64_t length = Number(0, static_cast<std::int64_t>(longest));
  return std::string(Bytes(static_cast<std::size_t>(length)));
}

}  // namespace base
