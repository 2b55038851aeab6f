// What a program gives up before it hears a word from outside: whoever takes it over finds nothing
// to read, to write, to start or to talk to but the network.
//
// A process starts such a program by base/confined_program.h, which takes its user, groups and
// capabilities away before the program's own libraries are loaded; the program itself does the rest
// here, as the first thing in main.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

namespace base {

// Where the program finds its end of the socket pair. Its other descriptors are 0 to 2, on
// /dev/null.
inline constexpr int kChannel = 3;

enum class ConfinementStep : std::uint8_t {
  kNone,  // nothing failed
  kUser,
  kGroups,
  kCapabilities,
  kPrivileges,
  kDescriptors,
  kProgram,
  kParent,
  kLimits,
  kFiles,
  kSystemCalls,
};
inline constexpr ConfinementStep kLastConfinementStep = ConfinementStep::kSystemCalls;

struct ConfinementFailure {
  ConfinementStep step = ConfinementStep::kNone;
  int reason = 0;  // an error number

  explicit operator bool() const { return step != ConfinementStep::kNone; }
};

// Confines the calling process, which has one thread, for good:
// - it ends with the process that started it, and leaves no core and cannot be traced; if that
//   process has effective ids of its own (a service account's, say), which may not signal this one,
//   it ends when it next reads or writes the channel;
// - 512 MiB of address space, 64 descriptors, no byte in a file;
// - of all files it can read those that name resolution and TLS need, and write none;
// - it can start no program and no process (but threads), listen nowhere, and open no socket but
//   for IPv4 and IPv6.
// What the kernel does not know is left out; what it knows and refuses is a failure.
[[nodiscard]] ConfinementFailure Confine();

// Tells the other end of the channel how Confine ended; then, if well, gives it the answer to each
// of its questions, of `longest` bytes at most, until it is gone. The exit status.
int ServeConfined(std::size_t longest,
                  const std::function<std::string(const std::string&)>& answer);

}  // namespace base
