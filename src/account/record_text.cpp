#include "account/record_text.h"

#include <optional>

namespace nodelink::record {
namespace {

constexpr std::string_view kBlanks = " \t\r\v\f";

std::string_view Trimmed(std::string_view text) {
  const std::size_t first = text.find_first_not_of(kBlanks);
  return first == text.npos ? "" : text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

// Empty for a line without a key: a comment, or nothing that is read.
std::string_view KeyOf(std::string_view line) {
  const std::string_view content = Trimmed(line);
  const std::size_t equals = content.find('=');
  return content.starts_with('#') || equals == content.npos ? ""
                                                            : Trimmed(content.substr(0, equals));
}

// The first line of `key`, with its line end when it has one, as a view into `text`.
std::optional<std::string_view> LineOf(std::string_view text, std::string_view key) {
  for (std::size_t start = 0; start < text.size();) {
    const std::size_t end = text.find('\n', start);
    const std::size_t next = end == text.npos ? text.size() : end + 1;
    const std::string_view line = text.substr(start, next - start);
    if (KeyOf(line.substr(0, line.find('\n'))) == key) return line;
    start = next;
  }
  return std::nullopt;
}

}  // namespace

bool Holds(std::string_view text, const KeyWrite& write) {
  return LineOf(text, write.key) == write.key + "=\"" + write.value + "\"\n";
}

bool HaveSameLine(std::string_view a, std::string_view b, std::string_view key) {
  return LineOf(a, key) == LineOf(b, key);
}

std::string WithLineOf(std::string_view before, std::string text, std::string_view key) {
  const auto line = LineOf(text, key);
  if (!line) return text;
  const auto start = static_cast<std::size_t>(line->data() - text.data());
  const bool is_last = start + line->size() == text.size();
  std::string old_line(LineOf(before, key).value_or(""));
  if (!is_last && !old_line.empty() && !old_line.ends_with('\n')) old_line += '\n';
  return text.replace(start, line->size(), old_line);
}

}  // namespace nodelink::record
