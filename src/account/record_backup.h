// The account record as it was before a flow that writes several keys, to put it back if one fails.
#pragma once

#include <string>

#include "core/zomi_exception.h"

namespace nodelink {

class RecordBackup {
 public:
  // Reads the record as it is now. Throws ZomiException with kSystemError when privileges cannot be
  // raised or the record cannot be read.
  RecordBackup();

  // Puts the record back, byte for byte, or removes it when there was none. False, logged, when
  // that fails.
  bool Restore() const;

 private:
  bool existed_ = false;
  std::string content_;
};

// Runs `write`, which writes keys of the record: all of them or none. When it throws a
// ZomiException, the record is put back before that goes on. Throws as RecordBackup does.
template <typename Write>
void WriteWholeRecord(Write write) {
  const RecordBackup backup;
  try {
    write();
  } catch (const ZomiException&) {
    backup.Restore();
    throw;
  }
}

}  // namespace nodelink
