// System and library calls of the program under test that a test may watch, answer or fail.
//
// The linker's --wrap sends the calls here. A hook that is set takes the place of the call; one
// that is empty lets the real one through. Calls from inside shared libraries are not seen.
#pragma once

#include <curl/curl.h>
#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <ctime>
#include <functional>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace interpose {

// The value of a curl option, by the option's kind: a number (also a size), or a pointer.
using CurlValue = std::variant<long, void*>;

struct Hooks {
  std::function<std::time_t()> time;
  std::function<std::chrono::system_clock::time_point()> system_clock_now;
  std::function<void(unsigned int seconds)> sleep;
  std::function<void(useconds_t microseconds)> usleep;
  std::function<int(const char* path, int flags, mode_t mode)> open;  // mode 0 without O_CREAT
  std::function<int(int fd)> close;
  std::function<int(const char* path, mode_t mode)> chmod;
  std::function<int(const char* path, uid_t owner, gid_t group)> chown;
  std::function<int(uid_t real, uid_t effective, uid_t saved)> setresuid;
  std::function<int(gid_t real, gid_t effective, gid_t saved)> setresgid;
  std::function<int(void** frames, int size)> backtrace;
  std::function<char**(void* const* frames, int size)> backtrace_symbols;
  std::function<CURL*()> curl_init;
  std::function<bool(std::size_t size)> calloc_fails;
  std::function<bool(std::size_t size)> realloc_fails;
  // These act only when they give a result; without one the real call follows.
  std::function<std::optional<int>()> md5_init;  // 1 is success
  std::function<std::optional<int>()> md5_update;
  std::function<std::optional<int>()> md5_final;
  std::function<std::optional<char*>(const char* text)> curl_escape;
  std::function<std::optional<CURLcode>(CURLoption option, const CurlValue& value)> curl_setopt;
  std::function<std::optional<CURLcode>(CURL* curl)> curl_perform;
  std::function<std::optional<CURLcode>(CURLINFO info)> curl_getinfo;
};

// The hooks in force. Reset() empties them all.
Hooks& hooks();
void Reset();

// The real calls, for hooks that only watch.
int RealSetresuid(uid_t real, uid_t effective, uid_t saved);
int RealSetresgid(gid_t real, gid_t effective, gid_t saved);
int RealOpen(const char* path, int flags, mode_t mode);
int RealClose(int fd);
CURLcode RealCurlEasyPerform(CURL* curl);

}  // namespace interpose
