// Key-value texts. Input: key, value, text of the file.
#include "hos/linux/keyvalue_text.h"

#include <algorithm>

#include "fuzz/property.h"

namespace {

using hos_linux::FindValue;
using hos_linux::MakeLine;
using hos_linux::WithLine;

constexpr char kFormat[] = "%s=\"%s\"\n";

void CheckFound(std::string_view text, std::string_view key, std::string_view separator) {
  const auto value = FindValue(text, key, separator);
  if (!value) return;
  fuzz::Check(value->find('\n') == std::string_view::npos, "a value is of one line");
  fuzz::Check(text.find(*value) != std::string_view::npos, "a value stands in the text");
}

// The text before each "=" of the first lines.
std::vector<std::string> SomeKeys(const std::string& text) {
  constexpr std::size_t kEnough = 8;
  std::vector<std::string> keys;
  for (std::size_t start = 0; start < text.size() && keys.size() < kEnough;) {
    const std::size_t end = std::min(text.find('\n', start), text.size());
    const std::string line = text.substr(start, end - start);
    keys.push_back(line.substr(0, line.find('=')));
    start = end + 1;
  }
  return keys;
}

void CheckOthers(const std::string& before, const std::string& after, const std::string& key) {
  for (const std::string& other : SomeKeys(before)) {
    if (other == key) continue;
    fuzz::Check(FindValue(before, other, "=") == FindValue(after, other, "="),
                "a write changes no other key");
  }
}

void CheckWritten(const std::string& text, const std::string& key, const std::string& value,
                  const std::string& line) {
  fuzz::Check(FindValue(line, key, "=") == value, "an accepted line reads back");
  fuzz::Check(line.find('\n') == line.size() - 1, "an accepted line is one line");
  const std::string after = WithLine(text, key, line);
  fuzz::Check(FindValue(after, key, "=") == value, "a written value reads back");
  fuzz::Check(WithLine(after, key, line) == after, "a second write changes nothing");
  CheckOthers(text, after, key);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto parts = fuzz::Parts(data, size, 3);
  const std::string& key = parts[0];
  const std::string& value = parts[1];
  const std::string& text = parts[2];
  CheckFound(text, key, "=");
  CheckFound(text, key, value);
  if (const auto line = MakeLine(kFormat, key, value)) CheckWritten(text, key, value, *line);
  if (const auto line = MakeLine(text, key, value)) CheckWritten("", key, value, *line);
  return 0;
}
