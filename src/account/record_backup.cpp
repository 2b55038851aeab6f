#include "account/record_backup.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "account/privilege_guard.h"
#include "account/record_keys.h"
#include "base/atomic_replace.h"
#include "base/read_file.h"
#include "core/error_code.h"
#include "core/log.h"
#include "core/zomi_exception.h"

namespace nodelink {
namespace {

// Well above what the largest answers can make of it, so that no answer makes a record that stays
// unwritable.
constexpr std::size_t kLargestRecord = 8 * 1024 * 1024;
constexpr base::FileAttributes kRoots = {0600, 0, 0};

bool ReplaceRecord(const std::string& content) {
  const base::UniqueFd folder = base::LockFolderOf(record::kPath);
  return folder && base::ReplaceInFolder(folder, base::FileNameOf(record::kPath), content, kRoots);
}

bool RemoveRecord() {
  return (unlink(record::kPath) == 0 && base::FlushFolderOf(record::kPath)) || errno == ENOENT;
}

}  // namespace

RecordBackup::RecordBackup() {
  bool readable = false;
  const bool privileged = RunPrivileged(Here(), [&] {
    existed_ = base::ReadFile(record::kPath, kLargestRecord, content_);
    readable = existed_ || errno == ENOENT;
  });
  if (!privileged || !readable) {
    throw ZomiException(kSystemError);
  }
}

bool RecordBackup::Restore() const {
  bool restored = false;
  const bool privileged = RunPrivileged(Here(), [&] {
    restored = existed_ ? ReplaceRecord(content_) : RemoveRecord();
    if (!restored) {
      LogError(Here(), "Failed to restore %s, reason=%s", record::kPath, std::strerror(errno));
    }
  });
  return privileged && restored;
}

}  // namespace nodelink
