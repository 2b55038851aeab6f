// The one way in which state files are written.
#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>

namespace base {

// Replaces the file `path`, or makes it, so that at every moment, a power failure included, a
// reader finds the whole old or the whole new content; when the call returns true the new one is on
// disk. The content goes to an exclusively made file of mode 0600 in the same folder, which gets
// `mode`, is flushed and then renamed over `path`. The folder must exist; a link at `path` is
// replaced, not followed. False, with errno set and the old file as it was, when any step before
// the rename fails. False also when only the last flush, that of the folder, fails: the new file
// then stands, but may not survive a power failure.
[[nodiscard]] bool AtomicReplace(const std::string& path, std::string_view content, mode_t mode);

// The same, with the owner and group of the new file.
[[nodiscard]] bool AtomicReplace(const std::string& path, std::string_view content, mode_t mode,
                                 uid_t owner, gid_t group);

}  // namespace base
