#include "klibc/exec.h"

#include <cstdarg>
#include <optional>
#include <string>
#include <vector>

#include "hos/linux/child.h"
#include "hos/linux/error.h"

namespace hos_linux {
namespace {

int Run(const char* path, const std::vector<std::string>& args) {
  Child child;
  if (!child.Start(path, args)) return -1;
  return child.Wait().value_or(-1);
}

int RunWithList(const char* path, va_list list) {
  std::vector<std::string> args;
  // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): not seen through the caller's lambda
  for (const char* arg = va_arg(list, const char*); arg != nullptr;
       arg = va_arg(list, const char*)) {
    args.emplace_back(arg);
  }
  return Run(path, args);
}

}  // namespace
}  // namespace hos_linux

extern "C" {

int KLIBCExecl(const char* path, int flags, ...) {
  if (path == nullptr) return hos_linux::MinusOne(hos_linux::kBadArgument);
  va_list list;
  va_start(list, flags);
  const int result =
      hos_linux::PlatformCall(-1, [&] { return hos_linux::RunWithList(path, list); });
  va_end(list);
  return result;
}
}
