// What is in a folder.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace base {

// The names in the open folder, in no order, without "." and "..". None, with errno set, when it
// cannot be read.
std::optional<std::vector<std::string>> NamesIn(int folder);

// The same of the folder `path`.
std::optional<std::vector<std::string>> NamesIn(const char* path);

}  // namespace base
