#include "core/backtrace.h"

#include <cxxabi.h>
#include <execinfo.h>

#include <cstdlib>
#include <memory>
#include <string_view>

namespace nodelink {
namespace {

struct Free {
  void operator()(void* block) const { std::free(block); }
};

std::string Demangle(const std::string& name) {
  int status = 0;
  const std::unique_ptr<char, Free> text(
      abi::__cxa_demangle(name.c_str(), nullptr, nullptr, &status));
  return status == 0 && text ? text.get() : name;
}

// `symbol` is a line of backtrace_symbols: "MODULE(FUNCTION+OFFSET) [ADDRESS]".
std::string FrameLine(std::string_view symbol) {
  const std::size_t open = symbol.find('(');
  const std::size_t plus = open == symbol.npos ? open : symbol.find('+', open);
  const std::size_t close = plus == symbol.npos ? plus : symbol.find(')', plus);
  if (close == symbol.npos) return "- " + std::string(symbol);
  const std::string module(symbol.substr(0, open));
  const std::string function(symbol.substr(open + 1, plus - open - 1));
  const std::string offset(symbol.substr(plus + 1, close - plus - 1));
  return "- " + module + ": " + Demangle(function) + " +" + offset;
}

}  // namespace

Backtrace::Backtrace(std::size_t depth) {
  std::vector<void*> addresses(depth);
  const int count = backtrace(addresses.data(), static_cast<int>(depth));
  if (count <= 0) {
    lines_.emplace_back("- empty");
    return;
  }
  const std::unique_ptr<char*, Free> symbols(backtrace_symbols(addresses.data(), count));
  for (int frame = 1; symbols && frame < count; ++frame) {
    lines_.push_back(FrameLine(symbols.get()[frame]));
  }
}

}  // namespace nodelink
