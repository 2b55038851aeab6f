#include "account/account_link.h"

#include <cstdint>
#include <string>

#include "account/token_files.h"
#include "account/user.h"
#include "core/zomi_exception.h"

namespace nodelink {
namespace {

void Write(const LinkLock& lock, RecordChange& change, const std::string& old_serial,
           const LinkIdentity& link) {
  if (!old_serial.empty() && old_serial != link.id_serial) {
    change.Set(lock, record::kLastQueryTime, std::int64_t{0});
  }
  change.Set(lock, record::kZomiIdSerial, link.id_serial);
  change.Set(lock, record::kHsAuthKey, link.auth_key);
}

void WriteWhole(const LinkLock& lock, const std::string& old_serial, const LinkIdentity& link) {
  RecordChange change;
  try {
    Write(lock, change, old_serial, link);
  } catch (const ZomiException&) {
    change.Undo(lock);
    throw;
  }
}

}  // namespace

bool IsEndedLink(const LinkLock& lock, const LinkIdentity& link,
                 const std::optional<LinkIdentity>& link_before) {
  return link == link_before && !lock.Holds(link);
}

void WriteAccountLink(const LinkLock& lock, RecordChange& change, const LinkIdentity& link) {
  Write(lock, change, User().Get(record::kZomiIdSerial), link);
}

void ReplaceAccountLink(const LinkLock& lock, const LinkIdentity& link) {
  const std::string old_serial = User().Get(record::kZomiIdSerial);
  if (old_serial == link.id_serial) {
    WriteWhole(lock, old_serial, link);
    return;
  }
  TokensSetAside former(lock);
  WriteWhole(lock, old_serial, link);
  former.Drop();
}

}  // namespace nodelink
