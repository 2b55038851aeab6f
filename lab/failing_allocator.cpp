// Preloaded into a program: makes allocations fail, and says where.
//
// A signal that ends the program is reported too, with the place that it was at. With the leak
// checker preloaded as well, what leaked is looked for when main has returned.
//
// Counted is from the moment when all libraries are set up: the loader's allocations and those of
// the libraries' constructors are none of the program's. The programs that it starts are left
// alone.
//
//   LAB_ALLOCATION_REPORT  the file to report to
//   LAB_ALLOCATION_FIRST   the first allocation to fail; 0: none, but each one is listed with the
//                          module that asked for it
//   LAB_ALLOCATION_LAST    the last one to fail
#include <dlfcn.h>
#include <execinfo.h>
#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <new>
#include <string_view>
#include <utility>

extern "C" __attribute__((weak)) int __lsan_do_recoverable_leak_check();

namespace {

constexpr int kReportDescriptor = 200;  // out of the program's way
constexpr int kMostFrames = 100;
constexpr mode_t kReportMode = 0600;

std::atomic<bool> armed = false;
std::atomic<unsigned long> count = 0;
unsigned long first = 0;
unsigned long last = 0;
int report = -1;
thread_local bool reporting = false;

template <typename Function>
Function* Next(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

// What tells one way to an allocation from another, wherever the libraries were loaded: a hash
// (FNV-1a) of the places on the stack, relative to the beginnings of their libraries.
unsigned long HashOfStack() {
  std::array<void*, kMostFrames> frames{};
  const auto depth = static_cast<std::size_t>(backtrace(frames.data(), kMostFrames));
  unsigned long hash = 0xcbf29ce484222325;
  for (std::size_t i = 0; i < depth; ++i) {
    dl_find_object object{};
    const bool found = _dl_find_object(frames.at(i), &object) == 0;
    const char* base = found ? static_cast<char*>(object.dlfo_map_start) : nullptr;
    hash = (hash ^ static_cast<unsigned long>(static_cast<char*>(frames.at(i)) - base)) *
           0x100000001b3;
  }
  return hash;
}

void PrintModule(unsigned long number, void* caller) {
  Dl_info info = {};
  const char* path = dladdr(caller, &info) != 0 ? info.dli_fname : "?";
  const std::string_view name =
      std::string_view(path).substr(std::string_view(path).rfind('/') + 1);
  dprintf(report, "%lu %.*s %lx\n", number, static_cast<int>(name.size()), name.data(),
          HashOfStack());
}

void PrintCallers() {
  std::array<void*, kMostFrames> frames{};
  backtrace_symbols_fd(frames.data(), backtrace(frames.data(), kMostFrames), report);
}

// The signal comes once more when this returns, and ends the program: its action was reset.
void ReportEnd(int signal) {
  reporting = true;
  dprintf(report, "ended by signal %d\n", signal);
  PrintCallers();
  raise(signal);
}

void WatchForEnd() {
  struct sigaction action = {};
  action.sa_handler = ReportEnd;
  action.sa_flags = static_cast<int>(SA_RESETHAND);
  for (const int signal : {SIGABRT, SIGBUS, SIGFPE, SIGILL, SIGSEGV, SIGTERM}) {
    sigaction(signal, &action, nullptr);
  }
}

// False when this allocation is to fail.
bool Allowed(std::size_t size, void* caller) {
  if (!armed || reporting) return true;
  reporting = true;
  const int reason = errno;
  const unsigned long number = ++count;
  const bool fails = first != 0 && number >= first && number <= last;
  if (first == 0) {
    PrintModule(number, caller);
  } else if (number == first) {
    dprintf(report, "failed %lu of %zu bytes\n", number, size);
    PrintCallers();
  }
  errno = fails ? ENOMEM : reason;
  reporting = false;
  return !fails;
}

using Main = int(int, char**, char**);
Main* program_main = nullptr;

int RunMain(int argc, char** argv, char** environment) {
  armed = report >= 0;
  const int status = program_main(argc, argv, environment);
  armed = false;
  if (__lsan_do_recoverable_leak_check != nullptr) __lsan_do_recoverable_leak_check();
  return status;
}

unsigned long NumberFrom(const char* name) {
  const char* text = std::getenv(name);
  return text == nullptr ? 0 : std::strtoul(text, nullptr, 10);
}

__attribute__((constructor)) void Arm() {
  const char* path = std::getenv("LAB_ALLOCATION_REPORT");
  if (path == nullptr) return;
  const int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, kReportMode);
  report = fcntl(fd, F_DUPFD_CLOEXEC, kReportDescriptor);
  close(fd);
  first = NumberFrom("LAB_ALLOCATION_FIRST");
  last = NumberFrom("LAB_ALLOCATION_LAST");
  for (const char* name :
       {"LD_PRELOAD", "LAB_ALLOCATION_REPORT", "LAB_ALLOCATION_FIRST", "LAB_ALLOCATION_LAST"}) {
    unsetenv(name);
  }
  std::array<void*, 1> frame{};
  backtrace(frame.data(), 1);  // its first call allocates
  WatchForEnd();
}

void* New(std::size_t size, void* caller) {
  static auto* const allocate = Next<void*(std::size_t)>("malloc");
  return Allowed(size, caller) ? allocate(size) : nullptr;
}

void* Resize(void* block, std::size_t size, void* caller) {
  static auto* const resize = Next<void*(void*, std::size_t)>("realloc");
  return Allowed(size, caller) ? resize(block, size) : nullptr;
}

void* NewAligned(std::size_t alignment, std::size_t size, void* caller) {
  static auto* const allocate = Next<void*(std::size_t, std::size_t)>("memalign");
  return Allowed(size, caller) ? allocate(alignment, size) : nullptr;
}

void* OrThrow(void* block) {
  if (block == nullptr) throw std::bad_alloc();
  return block;
}

}  // namespace

#define CALLER __builtin_return_address(0)

// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name): the C library's are reserved
extern "C" {

// The C library's own start of main.
int __libc_start_main(Main* main, int argc, char** argv, void (*init)(), void (*fini)(),
                      void (*loader_fini)(), void* stack_end) {
  static auto* const start =
      Next<int(Main*, int, char**, void (*)(), void (*)(), void (*)(), void*)>("__libc_start_main");
  program_main = main;
  return start(RunMain, argc, argv, init, fini, loader_fini, stack_end);
}

// Only the leak checker calls this one, and it cannot do without its answer.
int pthread_getattr_np(pthread_t thread, pthread_attr_t* attributes) {
  static auto* const get = Next<int(pthread_t, pthread_attr_t*)>("pthread_getattr_np");
  const bool before = std::exchange(reporting, true);
  const int result = get(thread, attributes);
  reporting = before;
  return result;
}

void* malloc(std::size_t size) { return New(size, CALLER); }

void* calloc(std::size_t number, std::size_t size) {
  static auto* const allocate = Next<void*(std::size_t, std::size_t)>("calloc");
  return Allowed(number * size, CALLER) ? allocate(number, size) : nullptr;
}

void* realloc(void* block, std::size_t size) { return Resize(block, size, CALLER); }

void* reallocarray(void* block, std::size_t number, std::size_t size) {
  if (size != 0 && number > std::numeric_limits<std::size_t>::max() / size) {
    errno = ENOMEM;
    return nullptr;
  }
  return Resize(block, number * size, CALLER);
}

void* memalign(std::size_t alignment, std::size_t size) {
  return NewAligned(alignment, size, CALLER);
}

void* aligned_alloc(std::size_t alignment, std::size_t size) {
  return NewAligned(alignment, size, CALLER);
}

int posix_memalign(void** result, std::size_t alignment, std::size_t size) {
  void* block = NewAligned(alignment, size, CALLER);
  if (block == nullptr) return ENOMEM;
  *result = block;
  return 0;
}
}
// NOLINTEND(readability-inconsistent-declaration-parameter-name)

void* operator new(std::size_t size) { return OrThrow(New(size, CALLER)); }
void* operator new[](std::size_t size) { return OrThrow(New(size, CALLER)); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return New(size, CALLER); }
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept { return New(size, CALLER); }
void operator delete(void* block) noexcept { std::free(block); }
void operator delete[](void* block) noexcept { std::free(block); }
void operator delete(void* block, std::size_t) noexcept { std::free(block); }
void operator delete[](void* block, std::size_t) noexcept { std::free(block); }
