#include "hos/linux/keyvalue_text.h"

#include <cstddef>

namespace hos_linux {
namespace {

constexpr std::string_view kWhiteSpace = " \t\r\v\f";
constexpr std::string_view kSeparator = "=";

struct Line {
  std::string_view key;
  std::string_view value;
};

std::string_view Trimmed(std::string_view text) {
  const std::size_t first = text.find_first_not_of(kWhiteSpace);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(kWhiteSpace) - first + 1);
}

std::string_view WithoutQuotes(std::string_view value) {
  const std::size_t last = value.rfind('"');
  if (!value.starts_with('"') || last == 0) return value;
  return value.substr(1, last - 1);
}

std::optional<Line> ParseLine(std::string_view line, std::string_view separator) {
  const std::string_view content = Trimmed(line);
  if (content.empty() || content.front() == '#') return std::nullopt;
  const std::size_t end_of_key = content.find(separator);
  if (end_of_key == std::string_view::npos) return std::nullopt;
  return Line{Trimmed(content.substr(0, end_of_key)),
              WithoutQuotes(Trimmed(content.substr(end_of_key + separator.size())))};
}

// The line that begins at `start`, with its line end when it has one.
std::string_view LineAt(std::string_view text, std::size_t start) {
  const std::size_t end = text.find('\n', start);
  return text.substr(start, end == std::string_view::npos ? end : end - start + 1);
}

std::string_view WithoutLineEnd(std::string_view line) {
  if (line.ends_with('\n')) line.remove_suffix(1);
  return line;
}

// The whole first line of `key`, as a view into `text`. Only lines that hold the key's text at all
// are looked into: a record may have thousands of lines that are not the program's.
std::optional<std::string_view> FindLine(std::string_view text, std::string_view key,
                                         std::string_view separator) {
  std::size_t found = key.empty() ? std::string_view::npos : text.find(key);
  while (found != std::string_view::npos) {
    const std::size_t start = text.rfind('\n', found) + 1;  // npos + 1 is 0
    const std::string_view line = LineAt(text, start);
    const std::optional<Line> parsed = ParseLine(WithoutLineEnd(line), separator);
    if (parsed && parsed->key == key) return line;
    found = text.find(key, start + line.size());
  }
  return std::nullopt;
}

std::optional<std::string> Expand(std::string_view format, std::string_view key,
                                  std::string_view value) {
  std::string out;
  int texts_used = 0;
  for (std::size_t i = 0; i < format.size(); ++i) {
    if (format[i] != '%') {
      out += format[i];
      continue;
    }
    const char conversion = ++i < format.size() ? format[i] : '\0';
    if (conversion == '%') {
      out += '%';
    } else if (conversion == 's' && texts_used < 2) {
      out += texts_used++ == 0 ? key : value;
    } else {
      return std::nullopt;
    }
  }
  if (texts_used != 2) return std::nullopt;
  return out;
}

bool IsOneLine(std::string_view text) { return text.find('\n') == text.size() - 1; }

}  // namespace

std::optional<std::string_view> FindValue(std::string_view text, std::string_view key,
                                          std::string_view separator) {
  if (separator.empty()) return std::nullopt;
  const std::optional<std::string_view> line = FindLine(text, key, separator);
  if (!line) return std::nullopt;
  return ParseLine(WithoutLineEnd(*line), separator)->value;
}

std::optional<std::string> MakeLine(std::string_view line_format, std::string_view key,
                                    std::string_view value) {
  std::optional<std::string> line = Expand(line_format, key, value);
  if (!line || key.empty() || !IsOneLine(*line)) return std::nullopt;
  const std::optional<Line> parsed = ParseLine(WithoutLineEnd(*line), kSeparator);
  if (!parsed || parsed->key != key || parsed->value != value) return std::nullopt;
  return line;
}

std::string WithLine(std::string_view text, std::string_view key, std::string_view line) {
  const std::optional<std::string_view> old = FindLine(text, key, kSeparator);
  std::string out(text);
  if (old) {
    return out.replace(static_cast<std::size_t>(old->data() - text.data()), old->size(), line);
  }
  if (!out.empty() && out.back() != '\n') out += '\n';
  return out.append(line);
}

}  // namespace hos_linux
