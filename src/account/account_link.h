// Naming the account in the record when the device is linked to it.
#pragma once

#include <optional>

#include "account/link_lock.h"
#include "account/record_change.h"

namespace nodelink {

// Whether `link`, which a login was given, is the one that the device had before and that another
// process has ended meanwhile, so that the server knows it no more.
[[nodiscard]] bool IsEndedLink(const LinkLock& lock, const LinkIdentity& link,
                               const std::optional<LinkIdentity>& link_before);

// Writes what the account server knows the device by, and the device's key there. When that is
// another account than the record's, the stored profile no longer answers queries. Throws
// ZomiException as RecordChange::Set does; the caller takes the change back then.
void WriteAccountLink(const LinkLock& lock, RecordChange& change, const LinkIdentity& link);

// The same for a login that brings no tokens: another account's are removed. Throws as
// WriteAccountLink does, with record and tokens as they were.
void ReplaceAccountLink(const LinkLock& lock, const LinkIdentity& link);

}  // namespace nodelink
