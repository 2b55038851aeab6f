// What strace recorded of a run ("strace -f -y").
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace torture {

struct TracedCall {
  pid_t process = 0;  // or thread
  std::string name = {};
  std::string text = {};     // 'name(arguments) = result', as far as it was recorded
  std::string result = {};   // "?" or nothing where the caller did not live to see it
  std::size_t end_line = 0;  // in the record; 0: the call did not end
  bool injected = false;

  [[nodiscard]] bool Contains(std::string_view part) const {
    return text.find(part) != std::string::npos;
  }
  [[nodiscard]] bool ended() const { return end_line != 0 && result != "?"; }
};

struct Trace {
  std::vector<TracedCall> calls;  // in the order in which they began
  bool killed = false;            // somebody, by SIGKILL
};

// Empty when there is no such file.
Trace ReadTrace(const std::string& path);

// The arguments of a call, texts in their quotes. Throws std::runtime_error when they are cut off.
std::vector<std::string> ArgumentsOf(const TracedCall& call);

// The path of a descriptor, "5</a/b>" or "AT_FDCWD</a>"; "" of one that has none.
std::string PathOf(std::string_view descriptor);
// The text between the quotes. Throws std::runtime_error when it is no whole text.
std::string TextOf(std::string_view quoted);

}  // namespace torture
