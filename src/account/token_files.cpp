#include "account/token_files.h"

#include <unistd.h>

#include <cstdio>
#include <string_view>

#include "account/account_files.h"
#include "account/privilege_guard.h"
#include "base/atomic_replace.h"
#include "base/folder.h"

namespace nodelink {
namespace {

bool IsOfTheAccount(std::string_view name) {
  return name == base::FileNameOf(account_files::kRecord) || account_files::IsTokenFile(name);
}

std::vector<std::string> TokenFiles() {
  auto names = base::NamesIn(account_files::kFolder).value_or(std::vector<std::string>());
  std::erase_if(names, [](const std::string& name) { return !account_files::IsTokenFile(name); });
  return names;
}

std::string PathOf(const std::string& name) { return account_files::kFolder + name; }

std::string AsideOf(const std::string& name) {
  return account_files::kFolder + base::TemporaryPrefix(name) + "aside";
}

}  // namespace

TokensSetAside::TokensSetAside(const LinkLock& /*lock*/) {
  (void)RunPrivilegedSilently([this] {
    names_ = TokenFiles();
    for (const std::string& name : names_) std::rename(PathOf(name).c_str(), AsideOf(name).c_str());
  });
}

TokensSetAside::~TokensSetAside() {
  if (names_.empty()) return;
  (void)RunPrivilegedSilently([this] {
    for (const std::string& name : names_) std::rename(AsideOf(name).c_str(), PathOf(name).c_str());
  });
}

void TokensSetAside::Drop() {
  (void)RunPrivilegedSilently([this] {
    for (const std::string& name : names_) unlink(AsideOf(name).c_str());
    base::FlushFolderOf(account_files::kRecord);
  });
  names_.clear();
}

void RemoveAccountLeftovers(const LinkLock& /*lock*/) {
  (void)RunPrivilegedSilently([] {
    const base::UniqueFd folder = base::LockFolderOf(account_files::kRecord);
    if (folder) base::RemoveLeftovers(folder, IsOfTheAccount);
  });
}

}  // namespace nodelink
