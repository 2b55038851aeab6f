// The one way in which state files are written.
//
// At every moment, a power failure included, a reader finds the whole old or the whole new content,
// and when a replace returns true the new one is on disk. The content goes to an exclusively made
// file of mode 0600 in the same folder, which gets its attributes, is flushed and then renamed over
// the old file. A link in the file's place is replaced, not followed.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>
#include <string_view>

#include "base/unique_fd.h"

namespace base {

struct FileAttributes {
  mode_t mode;
  uid_t owner;
  gid_t group;
};

// The last part of `path`.
std::string FileNameOf(const std::string& path);

// What the names of the temporary files of the file `name` begin with. They stand in its folder.
std::string TemporaryPrefix(std::string_view name);

// Writes all of `content`. False with errno set.
[[nodiscard]] bool WriteAll(int fd, std::string_view content);

// Takes the exclusive flock of `fd`, waiting for other holders for `limit` at most. False with
// errno set (EWOULDBLOCK when time ran out).
[[nodiscard]] bool LockWithinLimit(int fd,
                                   std::chrono::milliseconds limit = std::chrono::seconds(30));

// Whether `path` leads to the open file `fd` itself, not to another file that took its place and
// not through a link. A lock on a file that nobody else can find keeps nobody out.
[[nodiscard]] bool StandsAt(int fd, const char* path);

// Opens, or makes, the lock file `path` of root's and takes its lock, waiting 30 seconds at most:
// nobody else can open it, and so keep root waiting. It ends with the descriptor, and the file
// stays. None, with errno set (EWOULDBLOCK when time ran out, EPERM when what stands there is no
// file of root's alone), on failure.
[[nodiscard]] UniqueFd LockFileOfRoot(const char* path);

// Opens the folder of `path`. None, with errno set, on failure.
[[nodiscard]] UniqueFd OpenFolderOf(const std::string& path);

// Opens the folder of `path` and locks it against every other writer that locks it so, waiting 30
// seconds at most. The lock is the folder's and not the file's, because a file that is renamed over
// takes its lock with it; it ends with the descriptor. None, with errno set (EWOULDBLOCK when time
// ran out), on failure.
[[nodiscard]] UniqueFd LockFolderOf(const std::string& path);

// Makes the names in the folder of `path` survive a power failure as they are: a removed file could
// come back otherwise. False with errno set.
bool FlushFolderOf(const std::string& path);

// Replaces, or makes, the file `name` in `folder`, whose other writers the caller holds off (as
// LockFolderOf does). Temporary files that killed writers left of `name` are removed on the way.
// False, with errno set and the old file as it was, when any step before the rename fails; false
// also when only the last flush, that of the folder, fails: the new file then stands, but may not
// survive a power failure.
[[nodiscard]] bool ReplaceInFolder(const UniqueFd& folder, const std::string& name,
                                   std::string_view content, const FileAttributes& attributes);

// Removes the temporary files that killed writers left in `folder` of the files whose names
// `belongs` accepts. The caller holds off the writers of those files.
void RemoveLeftovers(const UniqueFd& folder, bool (*belongs)(std::string_view name));

// Both in one: replaces the file `path` by one of the caller's with the mode `mode`.
[[nodiscard]] bool AtomicReplace(const std::string& path, std::string_view content, mode_t mode);

}  // namespace base
