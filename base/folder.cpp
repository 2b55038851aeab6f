#include "base/folder.h"

#include <dirent.h>
#include <fcntl.h>

#include <memory>
#include <string_view>

#include "base/unique_fd.h"

namespace base {

// Not by the C++ library, whose iterator ends the program when it has no memory for the next name.
std::optional<std::vector<std::string>> NamesIn(int folder) {
  UniqueFd own(openat(folder, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  const std::unique_ptr<DIR, int (*)(DIR*)> listing(own ? fdopendir(own.get()) : nullptr, closedir);
  if (!listing) return std::nullopt;
  (void)own.Release();
  std::vector<std::string> names;
  while (const dirent* entry = readdir(listing.get())) {
    const std::string_view name = entry->d_name;
    if (name != "." && name != "..") names.emplace_back(name);
  }
  return names;
}

std::optional<std::vector<std::string>> NamesIn(const char* path) {
  const UniqueFd folder(open(path, O_PATH | O_DIRECTORY | O_CLOEXEC));
  return folder ? NamesIn(folder.get()) : std::nullopt;
}

}  // namespace base
