#include "hos/linux/locked_folder.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "base/atomic_replace.h"
#include "hos/linux/error.h"
#include "hos/linux/keyvalue_text.h"

namespace hos_linux {
namespace {

constexpr mode_t kPrivateMode = 0600;
constexpr mode_t kPublicMode = 0644;
constexpr mode_t kPermissionBits = 07777;

// What the new file is to have; nothing when the old one is no file that may be replaced.
std::optional<base::FileAttributes> AttributesFor(int folder, const std::string& name,
                                                  Attributes attributes) {
  struct stat old = {};
  const bool exists = fstatat(folder, name.c_str(), &old, AT_SYMLINK_NOFOLLOW) == 0;
  if (!exists && errno != ENOENT) {
    SetErrorFromErrno();
    return std::nullopt;
  }
  if (exists && !S_ISREG(old.st_mode)) {
    SetError(kBadContent);
    return std::nullopt;
  }
  if (attributes == Attributes::kPublicOfTheRoot) return base::FileAttributes{kPublicMode, 0, 0};
  const bool keep = exists && attributes == Attributes::kKeepOrPrivate;
  if (keep) return base::FileAttributes{old.st_mode & kPermissionBits, old.st_uid, old.st_gid};
  return base::FileAttributes{kPrivateMode, geteuid(), getegid()};
}

}  // namespace

std::optional<LockedFolder> LockedFolder::Under(const char* lock, const std::string& path) {
  base::UniqueFd held = base::LockFileOfRoot(lock);
  if (!held) {
    SetErrorFromErrno();
    syslog(LOG_ERR, "Failed to lock %s: %s", lock, std::strerror(errno));
    return std::nullopt;
  }
  base::UniqueFd folder = base::OpenFolderOf(path);
  if (!folder) {
    SetErrorFromErrno();
    return std::nullopt;
  }
  return LockedFolder(std::move(folder), std::move(held));
}

std::optional<LockedFolder> LockedFolder::Of(const std::string& path) {
  base::UniqueFd folder = base::LockFolderOf(path);
  if (!folder) {
    SetErrorFromErrno();
    return std::nullopt;
  }
  return LockedFolder(std::move(folder));
}

FileText LockedFolder::Read(const std::string& name) const {
  return ReadFileAt(folder_.get(), name.c_str(), kMaxKeyValueFile, Links::kRefuse);
}

bool LockedFolder::Replace(const std::string& name, std::string_view text,
                           Attributes attributes) const {
  const auto wanted = AttributesFor(folder_.get(), name, attributes);
  if (!wanted) return false;
  return base::ReplaceInFolder(folder_, name, text, *wanted) || FalseFromErrno();
}

bool LockedFolder::Remove(const std::string& name) const {
  if (unlinkat(folder_.get(), name.c_str(), 0) != 0) return errno == ENOENT || FalseFromErrno();
  return fsync(folder_.get()) == 0 || FalseFromErrno();
}

bool LockedFolder::IsPublicOfTheRoot(const std::string& name) const {
  struct stat info = {};
  return fstatat(folder_.get(), name.c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0 &&
         S_ISREG(info.st_mode) && (info.st_mode & kPermissionBits) == kPublicMode &&
         info.st_uid == 0 && info.st_gid == 0;
}

}  // namespace hos_linux
