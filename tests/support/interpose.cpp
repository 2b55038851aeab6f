#include "tests/support/interpose.h"

#include <fcntl.h>

#include <cstdarg>

namespace interpose {

Hooks& hooks() {
  static Hooks the_hooks;
  return the_hooks;
}

void Reset() { hooks() = Hooks(); }

}  // namespace interpose

using interpose::hooks;

// Two functions a call: __real_NAME is the one that --wrap=NAME hides, __wrap_NAME stands in its
// place. The curl handles and MD5 contexts only pass through.
extern "C" {

// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,readability-identifier-naming)
std::time_t __real_time(std::time_t* result);
unsigned int __real_sleep(unsigned int seconds);
int __real_usleep(useconds_t microseconds);
int __real_open(const char* path, int flags, ...);
int __real_close(int fd);
int __real_chmod(const char* path, mode_t mode);
int __real_chown(const char* path, uid_t owner, gid_t group);
int __real_setresuid(uid_t real, uid_t effective, uid_t saved);
int __real_setresgid(gid_t real, gid_t effective, gid_t saved);
int __real_backtrace(void** frames, int size);
char** __real_backtrace_symbols(void* const* frames, int size);
int __real_MD5_Init(void* context);
int __real_MD5_Update(void* context, const void* bytes, std::size_t size);
int __real_MD5_Final(unsigned char* digest, void* context);
void* __real_calloc(std::size_t count, std::size_t size);
void* __real_realloc(void* block, std::size_t size);
CURL* __real_curl_easy_init();
char* __real_curl_easy_escape(CURL* curl, const char* text, int length);
CURLcode __real_curl_easy_setopt(CURL* curl, CURLoption option, ...);
CURLcode __real_curl_easy_perform(CURL* curl);
CURLcode __real_curl_easy_getinfo(CURL* curl, CURLINFO info, ...);

std::time_t __wrap_time(std::time_t* result) {
  if (!hooks().time) return __real_time(result);
  const std::time_t now = hooks().time();
  if (result != nullptr) *result = now;
  return now;
}

unsigned int __wrap_sleep(unsigned int seconds) {
  if (!hooks().sleep) return __real_sleep(seconds);
  hooks().sleep(seconds);
  return 0;
}

int __wrap_usleep(useconds_t microseconds) {
  if (!hooks().usleep) return __real_usleep(microseconds);
  hooks().usleep(microseconds);
  return 0;
}

int __wrap_open(const char* path, int flags, ...) {
  va_list values;
  va_start(values, flags);
  const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(values, mode_t) : 0;
  va_end(values);
  return hooks().open ? hooks().open(path, flags, mode) : __real_open(path, flags, mode);
}

int __wrap_close(int fd) { return hooks().close ? hooks().close(fd) : __real_close(fd); }

int __wrap_chmod(const char* path, mode_t mode) {
  return hooks().chmod ? hooks().chmod(path, mode) : __real_chmod(path, mode);
}

int __wrap_chown(const char* path, uid_t owner, gid_t group) {
  return hooks().chown ? hooks().chown(path, owner, group) : __real_chown(path, owner, group);
}

int __wrap_setresuid(uid_t real, uid_t effective, uid_t saved) {
  return hooks().setresuid ? hooks().setresuid(real, effective, saved)
                           : __real_setresuid(real, effective, saved);
}

int __wrap_setresgid(gid_t real, gid_t effective, gid_t saved) {
  return hooks().setresgid ? hooks().setresgid(real, effective, saved)
                           : __real_setresgid(real, effective, saved);
}

int __wrap_backtrace(void** frames, int size) {
  return hooks().backtrace ? hooks().backtrace(frames, size) : __real_backtrace(frames, size);
}

char** __wrap_backtrace_symbols(void* const* frames, int size) {
  return hooks().backtrace_symbols ? hooks().backtrace_symbols(frames, size)
                                   : __real_backtrace_symbols(frames, size);
}

int __wrap_MD5_Init(void* context) {
  const auto result = hooks().md5_init ? hooks().md5_init() : std::nullopt;
  return result ? *result : __real_MD5_Init(context);
}

int __wrap_MD5_Update(void* context, const void* bytes, std::size_t size) {
  const auto result = hooks().md5_update ? hooks().md5_update() : std::nullopt;
  return result ? *result : __real_MD5_Update(context, bytes, size);
}

int __wrap_MD5_Final(unsigned char* digest, void* context) {
  const auto result = hooks().md5_final ? hooks().md5_final() : std::nullopt;
  return result ? *result : __real_MD5_Final(digest, context);
}

void* __wrap_calloc(std::size_t count, std::size_t size) {
  const bool fails = hooks().calloc_fails && hooks().calloc_fails(count * size);
  return fails ? nullptr : __real_calloc(count, size);
}

void* __wrap_realloc(void* block, std::size_t size) {
  const bool fails = hooks().realloc_fails && hooks().realloc_fails(size);
  return fails ? nullptr : __real_realloc(block, size);
}

CURL* __wrap_curl_easy_init() {
  return hooks().curl_init ? hooks().curl_init() : __real_curl_easy_init();
}

char* __wrap_curl_easy_escape(CURL* curl, const char* text, int length) {
  const auto result = hooks().curl_escape ? hooks().curl_escape(text) : std::nullopt;
  return result ? *result : __real_curl_easy_escape(curl, text, length);
}

// The enums as numbers: a type that promotion changes cannot stand before the dots.
CURLcode __wrap_curl_easy_setopt(CURL* curl, unsigned int number, ...) {
  const auto option = static_cast<CURLoption>(number);
  va_list values;
  va_start(values, number);
  interpose::CurlValue value;
  const bool is_pointer = option >= CURLOPTTYPE_OBJECTPOINT && option < CURLOPTTYPE_OFF_T;
  if (is_pointer) {
    value = va_arg(values, void*);
  } else {
    value = va_arg(values, long);  // sizes are as wide as long here
  }
  va_end(values);
  if (hooks().curl_setopt) {
    const auto result = hooks().curl_setopt(option, value);
    if (result) return *result;
  }
  return is_pointer ? __real_curl_easy_setopt(curl, option, std::get<void*>(value))
                    : __real_curl_easy_setopt(curl, option, std::get<long>(value));
}

CURLcode __wrap_curl_easy_perform(CURL* curl) {
  const auto result = hooks().curl_perform ? hooks().curl_perform(curl) : std::nullopt;
  return result ? *result : __real_curl_easy_perform(curl);
}

CURLcode __wrap_curl_easy_getinfo(CURL* curl, unsigned int number, ...) {
  const auto info = static_cast<CURLINFO>(number);
  va_list values;
  va_start(values, number);
  void* const place = va_arg(values, void*);
  va_end(values);
  const auto result = hooks().curl_getinfo ? hooks().curl_getinfo(info) : std::nullopt;
  return result ? *result : __real_curl_easy_getinfo(curl, info, place);
}
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,readability-identifier-naming)

}  // extern "C"

// A member function of C++, under the names that the linker looks for.
std::chrono::system_clock::time_point RealNow() __asm__(
    "__real__ZNSt6chrono3_V212system_clock3nowEv");
std::chrono::system_clock::time_point WrapNow() __asm__(
    "__wrap__ZNSt6chrono3_V212system_clock3nowEv");

std::chrono::system_clock::time_point WrapNow() {
  return hooks().system_clock_now ? hooks().system_clock_now() : RealNow();
}

namespace interpose {

int RealSetresuid(uid_t real, uid_t effective, uid_t saved) {
  return __real_setresuid(real, effective, saved);
}

int RealSetresgid(gid_t real, gid_t effective, gid_t saved) {
  return __real_setresgid(real, effective, saved);
}

int RealOpen(const char* path, int flags, mode_t mode) { return __real_open(path, flags, mode); }

int RealClose(int fd) { return __real_close(fd); }

CURLcode RealCurlEasyPerform(CURL* curl) { return __real_curl_easy_perform(curl); }

}  // namespace interpose
