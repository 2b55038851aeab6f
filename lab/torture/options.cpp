#include "lab/torture/options.h"

#include <charconv>
#include <cstddef>
#include <string_view>

#include "lab/torture/kind.h"

namespace torture {
namespace {

unsigned long NumberIn(std::string_view text) {  // 0 when it is none
  unsigned long number = 0;
  const char* end = text.data() + text.size();
  return std::from_chars(text.data(), end, number).ptr == end ? number : 0;
}

bool TakeWord(const std::string& word, Options& options) {
  if (FindKind(word) != nullptr) {
    options.kinds.push_back(word);
  } else if (word == "--all" || word == "--each") {
    options.all = true;
    options.every = 1;
    if (word == "--each") options.selection.each_alike = true;
    options.for_the_lab.push_back(word);
  } else {
    return false;
  }
  return true;
}

bool TakeValue(const std::string& option, const std::string& value, Options& options) {
  if (option == "--every") {
    options.every = NumberIn(value);
  } else if (option == "--flow") {
    options.selection.flows.push_back(value);
  } else if (option == "--only") {
    options.only = value;
  } else if (option == "--build") {
    options.build = value;
  } else if (option == "--jobs") {
    options.jobs = static_cast<unsigned>(NumberIn(value));
  } else if (option == "--counts") {
    options.counts = value;
  } else if (const std::size_t slash = value.find('/');
             option == "--share" && slash != std::string::npos) {
    options.selection.share = NumberIn(value.substr(0, slash));
    options.selection.shares = NumberIn(value.substr(slash + 1));
  } else {
    return false;
  }
  if (option == "--every" || option == "--flow" || option == "--only") {
    options.for_the_lab.insert(options.for_the_lab.end(), {option, value});
  }
  return option != "--every" || options.every != 0;
}

}  // namespace

std::optional<Options> ParseOptions(const std::vector<std::string>& words) {
  Options options;
  for (std::size_t index = 0; index < words.size(); ++index) {
    if (TakeWord(words[index], options)) continue;
    if (index + 1 == words.size() || !TakeValue(words[index], words[index + 1], options)) {
      return std::nullopt;
    }
    ++index;
  }
  if (options.only) {
    options.jobs = 1;
    if (options.kinds.size() != 1) return std::nullopt;
  }
  if (options.jobs == 0 || options.selection.shares == 0) return std::nullopt;
  return options;
}

}  // namespace torture
