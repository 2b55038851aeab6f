// Replacing a file so that a reader, or a machine that lost power, sees the old or the new file,
// whole.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <string_view>

#include "base/unique_fd.h"
#include "hos/linux/file.h"

namespace hos_linux {

// What mode and owner the new file gets.
enum class Attributes {
  kKeepOrPrivate,    // those of the old file; a first file is the caller's, mode 0600
  kPrivate,          // the caller's, 0600
  kPublicOfTheRoot,  // 0644 root root
};

// A folder that is held against every other writer of this library in any of its files. The lock is
// not the replaced file's, because a file that gets renamed over takes its lock with it.
class LockedFolder {
 public:
  // Opens the folder of `path` and waits up to 30 seconds for the lock of the file `lock`, which is
  // root's alone: for a folder that anybody may open, and then hold its own lock. Logs why the lock
  // cannot be had.
  [[nodiscard]] static std::optional<LockedFolder> Under(const char* lock, const std::string& path);

  // Opens the folder of `path` and waits up to 30 seconds for its lock.
  [[nodiscard]] static std::optional<LockedFolder> Of(const std::string& path);

  // The file `name` in the folder; a symbolic link is a failure.
  [[nodiscard]] FileText Read(const std::string& name) const;

  // Replaces or makes the regular file `name`. When it returns true, the new file is on disk; when
  // false, the old one is untouched.
  [[nodiscard]] bool Replace(const std::string& name, std::string_view text,
                             Attributes attributes) const;

  // Removes `name`; true also when it was not there.
  [[nodiscard]] bool Remove(const std::string& name) const;

  // Whether `name` is a regular file with the attributes kPublicOfTheRoot.
  [[nodiscard]] bool IsPublicOfTheRoot(const std::string& name) const;

 private:
  explicit LockedFolder(base::UniqueFd folder, base::UniqueFd lock = {})
      : lock_(std::move(lock)), folder_(std::move(folder)) {}

  base::UniqueFd lock_;  // none when the folder itself is locked
  base::UniqueFd folder_;
};

}  // namespace hos_linux
