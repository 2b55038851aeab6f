#include "base/module.h"

#include <dlfcn.h>

namespace base {

void* ModuleSymbol(const char* path, const char* symbol, std::string& why) {
  void* module = dlopen(path, RTLD_NOW | RTLD_LOCAL);
  void* address = module == nullptr ? nullptr : dlsym(module, symbol);
  if (address == nullptr) {
    const char* text = dlerror();
    why = text == nullptr ? "" : text;
  }
  return address;
}

}  // namespace base
