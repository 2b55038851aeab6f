// Setting the platform error triple. Everything in this library that reports failure has set it.
#pragma once

#include <cstdint>
#include <exception>

namespace hos_linux {

// Failures that are not the operating system's; those keep their errno as code.
enum LibraryError : std::uint16_t {
  kBadArgument = 0x0100,
  kNotFound = 0x0101,
  kBadContent = 0x0102,
  kTooBig = 0x0103,
  kNotTrusted = 0x0105,
  kProgramFailed = 0x0106,
  kTimedOut = 0x0107,
  kNetworkFailed = 0x0108,
  kRefused = 0x0109,
  kInternal = 0x010A,
};

// `file` and `line` default to the caller's.
void SetError(int code, const char* file = __builtin_FILE(), int line = __builtin_LINE());
void SetErrorFromErrno(const char* file = __builtin_FILE(), int line = __builtin_LINE());

// The same, giving the -1 that most platform calls return.
[[nodiscard]] int MinusOne(int code, const char* file = __builtin_FILE(),
                           int line = __builtin_LINE());

// The same, giving the false of the steps inside this library.
[[nodiscard]] bool False(int code, const char* file = __builtin_FILE(),
                         int line = __builtin_LINE());
[[nodiscard]] bool FalseFromErrno(const char* file = __builtin_FILE(), int line = __builtin_LINE());

// Puts the triple back to what it was when made, unless told that the call failed.
class TripleKeeper {
 public:
  TripleKeeper();
  TripleKeeper(const TripleKeeper&) = delete;
  TripleKeeper& operator=(const TripleKeeper&) = delete;
  ~TripleKeeper();

  void CallFailed() { restore_ = false; }

 private:
  int code_;
  const char* file_;
  int line_;
  bool restore_ = true;
};

[[nodiscard]] inline bool IsFailure(int result) { return result < 0; }
[[nodiscard]] inline bool IsFailure(bool result) { return !result; }
[[nodiscard]] inline bool IsFailure(const void* result) { return result == nullptr; }

// Runs `work`, the body of a platform call. The callers are C, so an exception (no memory, mostly)
// becomes the call's failure; and a call that succeeds leaves the triple alone, whatever steps on
// its way did not.
template <typename Result, typename Work>
Result PlatformCall(Result failure, Work work) {
  TripleKeeper triple;
  Result result = failure;
  try {
    result = work();
  } catch (const std::exception&) {
    SetError(kInternal);
  }
  if (IsFailure(result)) triple.CallFailed();
  return result;
}

}  // namespace hos_linux
