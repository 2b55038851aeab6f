// The account's files: names, paths, removal.
#pragma once

#include <string>
#include <string_view>

namespace nodelink::account_files {

// Root's alone; the files that follow stand there, and beside each its temporary ones
// (base/atomic_replace.h).
inline constexpr char kFolder[] = "/usr/kivo/etc/veltrix-account/private/";

inline constexpr char kRecord[] = "/usr/kivo/etc/veltrix-account/private/user.conf";
inline constexpr char kLinkLock[] = "/usr/kivo/etc/veltrix-account/private/.link.lock";
inline constexpr char kLoginLock[] = "/usr/kivo/etc/veltrix-account/private/.login.lock";

// What the names of all clients' token files end with.
inline constexpr char kTokenFileEnd[] = "_token.json";

// The token file of the client `name` (pkce/pkce_client.h), "NAME_token.json".
std::string TokenFile(const std::string& client);

// Whether the file name is that of a token file, and of no temporary one.
bool IsTokenFile(std::string_view name);

// The lock file "/tmp/account_NAME.lock", open to every user (pkce/file_lock.h).
std::string LockFile(const std::string& name);

// Removes the record for good: a power failure does not bring it back. The caller has root's rights
// (account/privilege_guard.h). False when it was not there or cannot be removed.
bool RemoveRecord();

}  // namespace nodelink::account_files
