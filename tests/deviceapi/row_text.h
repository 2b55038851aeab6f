// How the rows of a parameterised test show themselves in the list of tests.
#pragma once

#include <cctype>
#include <string>

// The beginning of `text`, with nothing in it that a test's name cannot hold.
inline std::string RowText(const std::string& text) {
  constexpr std::size_t kShown = 40;
  std::string shown = text.substr(0, kShown);
  for (char& character : shown) {
    if (std::isalnum(static_cast<unsigned char>(character)) == 0) character = '_';
  }
  return shown;
}

// Names a row by its place, for rows whose text is no name or not theirs alone.
inline constexpr auto kRowNumber = [](const auto& test) {
  return "Row" + std::to_string(test.index);
};
