// What two processes of one program say to each other: fields in an agreed order, of agreed sizes.
//
// A number takes 8 bytes, a text its length in 8 bytes and then itself; the byte order is the
// machine's. A frame is a message with its length in 4 bytes before it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

namespace base {

class MessageWriter {
 public:
  MessageWriter& Number(std::int64_t number);
  MessageWriter& Text(std::string_view text);

  std::string Take() { return std::move(bytes_); }

 private:
  std::string bytes_;
};

// Reads what a stranger wrote. From the first field that is not as agreed on, every field is 0 or
// empty and IsWhole() is false.
class MessageReader {
 public:
  // `bytes` outlives the reader.
  explicit MessageReader(std::string_view bytes) : rest_(bytes) {}

  // A number from `least` to `most`.
  std::int64_t Number(std::int64_t least, std::int64_t most);

  // A text of `longest` bytes at most.
  std::string Text(std::size_t longest);

  // Whether all fields were as agreed on so far.
  bool IsGood() const { return good_; }

  // The same, and nothing is left.
  bool IsWhole() const { return good_ && rest_.empty(); }

 private:
  std::string_view Bytes(std::size_t count);

  std::string_view rest_;
  bool good_ = true;
};

}  // namespace base
