#include "account/record_change.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string_view>
#include <utility>

#include "account/account_files.h"
#include "account/privilege_guard.h"
#include "account/zomi_config_remove.h"
#include "base/atomic_replace.h"
#include "base/read_file.h"
#include "core/log.h"

namespace nodelink {
namespace {

// Well above what the largest answers can make of it, so that no answer makes a record that stays
// unwritable.
constexpr std::size_t kLargestRecord = 8 * 1024 * 1024;
constexpr base::FileAttributes kRoots = {0600, 0, 0};

bool IsOfTheLink(std::string_view key) {
  return key == record::kZomiIdSerial.name || key == record::kHsAuthKey.name;
}

// Nothing when there is no record, or none that can be read.
std::optional<std::string> ReadRecord() {
  std::string text;
  return base::ReadFile(account_files::kRecord, kLargestRecord, text) ? std::optional(text)
                                                                      : std::nullopt;
}

// What else may stand in the record's place was not written by us.
bool IsNoFile() {
  struct stat status {};
  return lstat(account_files::kRecord, &status) == 0 && !S_ISREG(status.st_mode);
}

bool RemoveRecordFile(const base::UniqueFd& folder) {
  return unlinkat(folder.get(), base::FileNameOf(account_files::kRecord).c_str(), 0) == 0 &&
         base::FlushFolderOf(account_files::kRecord);
}

}  // namespace

void RecordChange::Note(const LinkLock& /*lock*/, record::KeyWrite write) {
  if (writes_.empty()) (void)RunPrivilegedSilently([this] { before_ = ReadRecord(); });
  writes_.push_back(std::move(write));
}

void RecordChange::Remove(const LinkLock& /*lock*/) {
  std::optional<std::string> record;
  (void)RunPrivilegedSilently([&record] { record = ReadRecord(); });
  if (ZomiConfigRemove() == 0) removed_ = record.value_or("");
}

// A link is two keys: one of them alone, or beside another link's, is none.
bool RecordChange::MayGoBack(const std::string& now, const record::KeyWrite& write) const {
  if (!record::Holds(now, write)) return false;
  const auto is_ours = [&](const char* key) {
    return std::any_of(writes_.begin(), writes_.end(),
                       [&](const record::KeyWrite& other) {
                         return other.key == key && record::Holds(now, other);
                       }) ||
           record::HaveSameLine(now, before_.value_or(""), key);
  };
  return !IsOfTheLink(write.key) ||
         (is_ours(record::kZomiIdSerial.name) && is_ours(record::kHsAuthKey.name));
}

// What the record `now` becomes; nothing stands for no record.
std::optional<std::string> RecordChange::TakenBack(const std::optional<std::string>& now) const {
  const bool linked_anew = now && removed_;
  const bool stays_gone = !now && (!removed_ || removal_ == Removal::kStands);
  if (linked_anew || stays_gone) return now;
  const std::string& written = now ? *now : *removed_;
  std::string text = written;
  for (const record::KeyWrite& write : writes_) {
    if (MayGoBack(written, write)) text = record::WithLineOf(before_.value_or(""), text, write.key);
  }
  if (!before_ && text.empty()) return std::nullopt;
  // The writer ends a last line that has no end before it adds another.
  return before_ && text == *before_ + "\n" ? before_ : text;
}

bool RecordChange::TakeBack() const {
  if (IsNoFile()) return true;
  const base::UniqueFd folder = base::LockFolderOf(account_files::kRecord);
  if (!folder) return errno == ENOENT;
  const std::optional<std::string> now = ReadRecord();
  if (!now && errno != ENOENT) return false;
  const std::optional<std::string> wanted = TakenBack(now);
  if (wanted == now) return true;
  return wanted ? base::ReplaceInFolder(folder, base::FileNameOf(account_files::kRecord), *wanted,
                                        kRoots)
                : RemoveRecordFile(folder);
}

void RecordChange::Undo(const LinkLock& /*lock*/) {
  if (writes_.empty() && !removed_) return;
  int reason = EPERM;
  bool done = false;
  (void)RunPrivilegedSilently([&] {
    done = TakeBack();
    reason = errno;
  });
  if (!done) {
    LogError(Here(), "Failed to restore %s, reason=%s", account_files::kRecord,
             std::strerror(reason));
  }
}

}  // namespace nodelink
