// A program that does the dangerous part of the work, without any of this one's rights.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "base/unique_fd.h"

namespace base {

// `installed` if that exists, else the file of that name beside the running program: so a build
// folder works as it is.
std::string ProgramPath(const std::string& installed);

// The program is started with the first question, answers one after the other, and ends with the
// object or with the process that asks. It is a stranger: what it says is bounded and waited for no
// longer than agreed, and a program that does not do as agreed is killed.
//
// It runs as the build's worker account, else as `nobody`, without other groups, where this process
// is root or may become root again; else with this process's effective ids. It has no capability,
// cannot gain any right, and has a fixed environment; of this process's descriptors it has one end
// of a socket pair. The rest of its confinement it takes on itself (base/confinement.h).
class ConfinedProgram {
 public:
  // `installed`: where it stands, or see ProgramPath.
  explicit ConfinedProgram(const char* installed) : installed_(installed) {}
  ConfinedProgram(const ConfinedProgram&) = delete;
  ConfinedProgram& operator=(const ConfinedProgram&) = delete;
  ~ConfinedProgram();

  // The answer to `question`, of `longest` bytes at most, if it comes within `limit`. None
  // otherwise; `why` then says so, and the next question goes to a program that is started anew.
  [[nodiscard]] std::optional<std::string> Ask(std::string_view question, std::size_t longest,
                                               std::chrono::milliseconds limit, std::string& why);

  // Kills it, rather than ask it to go: it has nothing to lose. The next question goes to a program
  // that is started anew.
  void Stop();

 private:
  bool Runs() const;
  bool HasSpoken() const;
  bool Start(std::string& why);
  bool IsConfined(std::chrono::steady_clock::time_point deadline, std::string& why);

  const char* installed_;
  UniqueFd channel_;
  UniqueFd process_;  // the program, as a descriptor, where the kernel has such
  pid_t pid_ = -1;
  pid_t owner_ =
      -1;  // whose child it is: a child of this process shares the memory, not the program
};

}  // namespace base
