#include "atomic_replace.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdint>
#include <memory>
#include <vector>

#include "error.h"
#include "keyvalue_text.h"

namespace hos_linux {
namespace {

constexpr mode_t kPrivateMode = 0600;
constexpr mode_t kPublicMode = 0644;
constexpr mode_t kPermissionBits = 07777;
constexpr std::string_view kTemporaryMark = ".tmp-";

struct Ownership {
  uid_t uid;
  gid_t gid;
  mode_t mode;
};

// A dot name: cron, run-parts and the like do not take it for a file of theirs.
std::string TemporaryPrefix(const std::string& name) {
  return "." + name + std::string(kTemporaryMark);
}

std::optional<std::string> TemporaryName(const std::string& name) {
  std::uint64_t number = 0;
  if (getrandom(&number, sizeof number, 0) != sizeof number) {
    SetErrorFromErrno();
    return std::nullopt;
  }
  return TemporaryPrefix(name) + std::to_string(number);
}

// The temporary file: gone again unless it was renamed.
class TemporaryFile {
 public:
  TemporaryFile(int folder, std::string name)
      : folder_(folder),
        name_(std::move(name)),
        fd_(openat(folder, name_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                   kPrivateMode)),
        exists_(fd_.valid()) {}
  TemporaryFile(const TemporaryFile&) = delete;
  TemporaryFile& operator=(const TemporaryFile&) = delete;
  ~TemporaryFile() {
    if (exists_) unlinkat(folder_, name_.c_str(), 0);
  }

  [[nodiscard]] bool Made() const { return exists_ || FalseFromErrno(); }

  [[nodiscard]] bool Own(const Ownership& owner) const {
    struct stat mine = {};
    if (fstat(fd_.get(), &mine) != 0) return FalseFromErrno();
    const bool mine_already = mine.st_uid == owner.uid && mine.st_gid == owner.gid;
    if (!mine_already && fchown(fd_.get(), owner.uid, owner.gid) != 0) return FalseFromErrno();
    return fchmod(fd_.get(), owner.mode) == 0 || FalseFromErrno();
  }

  [[nodiscard]] bool Fill(std::string_view text) {
    if (!WriteAll(fd_.get(), text)) return false;
    if (fsync(fd_.get()) != 0) return FalseFromErrno();
    return fd_.Close() || FalseFromErrno();
  }

  [[nodiscard]] bool RenameTo(const std::string& name) {
    if (renameat(folder_, name_.c_str(), folder_, name.c_str()) != 0) return FalseFromErrno();
    exists_ = false;
    return true;
  }

 private:
  int folder_;
  std::string name_;
  UniqueFd fd_;
  bool exists_;
};

// What the new file is to have; nothing when the old one is no file that may be replaced.
std::optional<Ownership> OwnershipFor(int folder, const std::string& name, Attributes attributes) {
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
  if (attributes == Attributes::kPublicOfTheRoot) return Ownership{0, 0, kPublicMode};
  const bool keep = exists && attributes == Attributes::kKeepOrPrivate;
  if (keep) return Ownership{old.st_uid, old.st_gid, old.st_mode & kPermissionBits};
  return Ownership{geteuid(), getegid(), kPrivateMode};
}

std::vector<std::string> NamesIn(int folder) {
  const int copy = openat(folder, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (copy < 0) return {};
  const std::unique_ptr<DIR, int (*)(DIR*)> listing(fdopendir(copy), closedir);
  std::vector<std::string> names;
  if (listing == nullptr) {
    close(copy);
    return names;
  }
  while (const dirent* entry = readdir(listing.get())) names.emplace_back(entry->d_name);
  return names;
}

}  // namespace

std::string FileNameOf(const std::string& path) { return path.substr(path.rfind('/') + 1); }

std::optional<LockedFolder> LockedFolder::Of(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  const std::string folder = slash == std::string::npos ? "." : path.substr(0, slash + 1);
  UniqueFd fd(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!fd.valid()) {
    SetErrorFromErrno();
    return std::nullopt;
  }
  if (!LockWithinLimit(fd.get())) return std::nullopt;
  return LockedFolder(std::move(fd));
}

FileText LockedFolder::Read(const std::string& name) const {
  return ReadFileAt(folder_.get(), name.c_str(), kMaxKeyValueFile, Links::kRefuse);
}

bool LockedFolder::Replace(const std::string& name, std::string_view text,
                           Attributes attributes) const {
  const std::optional<Ownership> owner = OwnershipFor(folder_.get(), name, attributes);
  if (!owner) return false;
  RemoveLeftovers(name);
  const std::optional<std::string> temporary_name = TemporaryName(name);
  if (!temporary_name) return false;
  TemporaryFile temporary(folder_.get(), *temporary_name);
  if (!temporary.Made() || !temporary.Own(*owner) || !temporary.Fill(text)) return false;
  if (!temporary.RenameTo(name)) return false;
  return fsync(folder_.get()) == 0 || FalseFromErrno();
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

// A writer that was killed leaves its temporary file; holding the lock, nobody else can be at it.
void LockedFolder::RemoveLeftovers(const std::string& name) const {
  const std::string prefix = TemporaryPrefix(name);
  for (const std::string& entry : NamesIn(folder_.get())) {
    if (entry.starts_with(prefix)) unlinkat(folder_.get(), entry.c_str(), 0);
  }
}

}  // namespace hos_linux
