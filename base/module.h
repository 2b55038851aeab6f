// Modules: shared objects of the programs' own that are loaded when they are first needed, so that
// a run which does without them does not pay for what they link.
#pragma once

#include <string>

namespace base {

// The address of `symbol` in the module at the absolute `path`, which stays loaded until the
// process ends. Null when there is no such module or symbol; `why` then holds the loader's text.
[[nodiscard]] void* ModuleSymbol(const char* path, const char* symbol, std::string& why);

}  // namespace base
