// The call stack as text.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace nodelink {

class Backtrace {
 public:
  // Captures at most `depth` frames of the caller's stack, innermost first; the capturing frame
  // itself is counted but not listed.
  explicit Backtrace(std::size_t depth);

  // One line a frame: "- MODULE: FUNCTION +OFFSET" with the function demangled, or "- " and the raw
  // symbol line when it has no such parts. "- empty" alone when no stack could be taken.
  const std::vector<std::string>& lines() const { return lines_; }

 private:
  std::vector<std::string> lines_;
};

}  // namespace nodelink
