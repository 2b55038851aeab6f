#include "account/account_files.h"

#include <unistd.h>

#include "base/atomic_replace.h"
#include "core/include/internal/string_utils.h"

namespace nodelink::account_files {

static_assert(std::string_view(kRecord).starts_with(kFolder));
static_assert(std::string_view(kLinkLock).starts_with(kFolder));
static_assert(std::string_view(kLoginLock).starts_with(kFolder));

std::string TokenFile(const std::string& client) { return kFolder + client + kTokenFileEnd; }

bool IsTokenFile(std::string_view name) {
  return name.ends_with(kTokenFileEnd) && !name.starts_with('.');
}

std::string LockFile(const std::string& name) { return FormatString("/tmp/account_%s.lock", name); }

bool RemoveRecord() {
  const bool removed = unlink(kRecord) == 0;
  base::FlushFolderOf(kRecord);
  return removed;
}

}  // namespace nodelink::account_files
