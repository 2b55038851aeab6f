// Parameters of tests under names that fit into a list of test names.
#pragma once

#include <ostream>
#include <string>
#include <string_view>
#include <utility>

// `text` with letters, digits and a few signs as they are and anything else as %XX; a long text is
// cut and its size added.
inline std::string TestName(std::string_view text) {
  constexpr std::size_t kLongest = 40;
  constexpr char kDigits[] = "0123456789ABCDEF";
  constexpr std::string_view kKept =
      "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-_=.:/@,";
  std::string name;
  for (const char c : text.substr(0, kLongest)) {
    const auto byte = static_cast<unsigned char>(c);
    name += kKept.find(c) != std::string_view::npos
                ? std::string(1, c)
                : std::string("%") + kDigits[byte / 16U] + kDigits[byte % 16U];
  }
  if (text.size() > kLongest) name += "_and_so_on_to_" + std::to_string(text.size()) + "_bytes";
  return name.empty() ? "nothing" : name;
}

// Any text as a test's parameter.
struct Sample {
  Sample(const char* sample) : text(sample) {}             // NOLINT: a text is a sample
  Sample(std::string sample) : text(std::move(sample)) {}  // NOLINT
  std::string text;
};

inline void PrintTo(const Sample& sample, std::ostream* out) { *out << TestName(sample.text); }
