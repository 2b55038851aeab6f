// The account record as text: lines `key="value"`, of which the first of a key counts.
#pragma once

#include <string>
#include <string_view>

namespace nodelink::record {

// A write of one key.
struct KeyWrite {
  std::string key;
  std::string value;
};

// Whether `text` holds `write` exactly as the record's writer writes it.
[[nodiscard]] bool Holds(std::string_view text, const KeyWrite& write);

// Whether the line of `key` is the same in both texts, or is in neither.
[[nodiscard]] bool HaveSameLine(std::string_view a, std::string_view b, std::string_view key);

// `text`, which has the key, with the line that `before` has for it in the place of its own;
// without that line when `before` has none.
[[nodiscard]] std::string WithLineOf(std::string_view before, std::string text,
                                     std::string_view key);

}  // namespace nodelink::record
