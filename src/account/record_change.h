// What one flow does to the account record, so that it can be taken back when the flow fails.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "account/link_lock.h"
#include "account/record_text.h"
#include "account/record_value.h"
#include "account/user.h"

namespace nodelink {

// Whether a record that the flow removed stays removed when the flow fails.
enum class Removal { kStands, kIsUndone };

class RecordChange {
 public:
  explicit RecordChange(Removal removal = Removal::kStands) : removal_(removal) {}
  RecordChange(const RecordChange&) = delete;
  RecordChange& operator=(const RecordChange&) = delete;

  // Writes a key of the record, as User::Set does; throws as that does.
  template <typename Key, typename Value>
  void Set(const LinkLock& lock, const Key& key, const Value& value) {
    Note(lock, {key.name, record::ValueText(value)});
    User().Set(key, value);
  }

  // Removes the record, as ZomiConfigRemove does.
  void Remove(const LinkLock& lock);

  // Whether Remove() has removed it.
  bool removed() const { return removed_.has_value(); }

  // Takes back the keys that were written and still hold what was written; "zomiIDSerial" and
  // "hs_auth_key" go back together or not at all, and what other processes wrote stays. A record
  // that another program removed stays gone. Nothing is rewritten that need not change. A failure
  // is logged.
  void Undo(const LinkLock& lock);

 private:
  void Note(const LinkLock& lock, record::KeyWrite write);
  bool MayGoBack(const std::string& now, const record::KeyWrite& write) const;
  std::optional<std::string> TakenBack(const std::optional<std::string>& now) const;
  bool TakeBack() const;

  Removal removal_;
  std::optional<std::string> before_;     // the record before the first write, if there was one
  std::vector<record::KeyWrite> writes_;  // failed ones too: they may have been written
  std::optional<std::string> removed_;    // the record when it was removed
};

}  // namespace nodelink
