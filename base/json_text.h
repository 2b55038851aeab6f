// A JSON value as text.
#pragma once

#include <json/value.h>
#include <json/writer.h>

#include <algorithm>
#include <ios>
#include <limits>
#include <memory>
#include <ostream>
#include <streambuf>
#include <string>
#include <utility>

namespace base {

// Takes text up to a limit; what goes beyond it fails.
class BoundedText : public std::streambuf {
 public:
  explicit BoundedText(std::size_t limit) : limit_(limit) {}

  std::string Take() { return std::move(text_); }

 protected:
  int_type overflow(int_type sign) override {
    const char byte = traits_type::to_char_type(sign);
    return xsputn(&byte, 1) == 1 ? sign : traits_type::eof();
  }

  std::streamsize xsputn(const char* bytes, std::streamsize count) override {
    const std::size_t taken = std::min(static_cast<std::size_t>(count), limit_ - text_.size());
    text_.append(bytes, taken);
    return static_cast<std::streamsize>(taken);
  }

 private:
  std::size_t limit_;
  std::string text_;
};

// `value` as `builder` writes it, cut at `limit` bytes, and no more of it is ever made. Throws
// std::bad_alloc when there is no memory for it: by itself a stream would swallow that, and what it
// holds, cut off anywhere, would pass for the whole text.
inline std::string JsonText(const Json::StreamWriterBuilder& builder, const Json::Value& value,
                            std::size_t limit) {
  BoundedText text(limit);
  std::ostream stream(&text);
  stream.exceptions(std::ios::badbit);
  const std::unique_ptr<Json::StreamWriter> writer(builder.newStreamWriter());
  try {
    writer->write(value, &stream);
  } catch (const std::ios::failure&) {
    // The limit: what there is room for is there.
  }
  return text.Take();
}

// In one line, or with `indentation` for each level; without a line break at the end.
inline std::string JsonText(const Json::Value& value, const char* indentation = "",
                            std::size_t limit = std::numeric_limits<std::size_t>::max()) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = indentation;
  builder["commentStyle"] = "None";
  builder["emitUTF8"] = true;
  return JsonText(builder, value, limit);
}

}  // namespace base
