#include "klib/plugin.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/folder.h"
#include "base/unique_fd.h"
#include "hos/linux/child.h"
#include "hos/linux/error.h"
#include "hos/linux/file.h"

struct KLIBPLUGIN {
  std::string action;
};

namespace hos_linux {
namespace {

constexpr char kPluginRoot[] = "/usr/kivo/lib/plugin";
constexpr std::chrono::seconds kTimeLimit{10};

enum class FolderState { kOpen, kMissing, kRefused };

struct Folder {
  FolderState state = FolderState::kRefused;
  base::UniqueFd fd;
};

// Action names are folder names below the plug-in root.
bool IsActionName(const std::string& action) {
  return StaysBelow(action) &&
         action.find_first_not_of(
             "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_.-/") ==
             std::string::npos;
}

// What others may change must not run with the caller's rights.
bool IsTrusted(const struct stat& info) {
  return info.st_uid == 0 && (info.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

Folder OpenTrusted(int parent, const std::string& name) {
  Folder folder;
  folder.fd =
      base::UniqueFd(openat(parent, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  struct stat info = {};
  if (!folder.fd) {
    folder.state = errno == ENOENT ? FolderState::kMissing : FolderState::kRefused;
    SetErrorFromErrno();
  } else if (fstat(folder.fd.get(), &info) != 0 || !IsTrusted(info)) {
    SetError(kNotTrusted);
  } else {
    folder.state = FolderState::kOpen;
  }
  return folder;
}

// Every folder from the root down must be safe: whoever can rename one can replace what is in it.
Folder OpenActionFolder(const std::string& action) {
  Folder folder = OpenTrusted(AT_FDCWD, kPluginRoot);
  for (std::size_t start = 0; folder.state == FolderState::kOpen && start < action.size();) {
    const std::size_t end = std::min(action.find('/', start), action.size());
    folder = OpenTrusted(folder.fd.get(), action.substr(start, end - start));
    start = end + 1;
  }
  return folder;
}

bool IsPluginName(std::string_view name) { return !name.starts_with('.') && !name.ends_with('~'); }

bool IsProgram(int folder, const std::string& name, struct stat& info) {
  return fstatat(folder, name.c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(info.st_mode) &&
         (info.st_mode & S_IXUSR) != 0;
}

// The entries that are meant as plug-ins, in name order; nothing when the folder cannot be read.
std::optional<std::vector<std::string>> PluginNames(const base::UniqueFd& folder) {
  auto names = base::NamesIn(folder.get());
  if (!names) {
    SetErrorFromErrno();
    return std::nullopt;
  }
  std::erase_if(*names, [&folder](const std::string& name) {
    struct stat info = {};
    return !IsPluginName(name) || !IsProgram(folder.get(), name, info);
  });
  std::sort(names->begin(), names->end());
  return names;
}

bool RunPlugin(const std::string& path, unsigned int number) {
  struct stat info = {};
  if (!IsProgram(AT_FDCWD, path, info) || !IsTrusted(info)) return False(kNotTrusted);
  Child child;
  if (!child.Start(path, {std::to_string(number)})) return false;
  const std::optional<int> status = child.WaitFor(kTimeLimit);
  if (!status) return false;
  return *status == 0 || False(kProgramFailed);
}

int RunAll(unsigned int number, const std::string& action) {
  Folder folder = OpenActionFolder(action);
  if (folder.state == FolderState::kMissing) return 0;
  if (folder.state == FolderState::kRefused) return -1;
  const auto names = PluginNames(folder.fd);
  if (!names) return -1;
  int result = 0;
  for (const std::string& name : *names) {
    const std::string path = std::string(kPluginRoot).append("/").append(action) + "/" + name;
    if (!RunPlugin(path, number)) result = -1;
  }
  return result;
}

}  // namespace
}  // namespace hos_linux

extern "C" {

int KLIBPluginSDKInit(const char* plugin, const char* action, KLIBPLUGIN** handle, KLIBPLUGIN**) {
  if (handle == nullptr) return hos_linux::MinusOne(hos_linux::kBadArgument);
  *handle = nullptr;
  if (plugin == nullptr || action == nullptr) return hos_linux::MinusOne(hos_linux::kBadArgument);
  return hos_linux::PlatformCall(-1, [=] {
    if (!hos_linux::IsActionName(action)) return hos_linux::MinusOne(hos_linux::kBadArgument);
    *handle = std::make_unique<KLIBPLUGIN>(KLIBPLUGIN{action}).release();
    return 0;
  });
}

int KLIBPluginAction(unsigned int number, KLIBPLUGIN* handle) {
  if (handle == nullptr) return hos_linux::MinusOne(hos_linux::kBadArgument);
  return hos_linux::PlatformCall(-1, [=] { return hos_linux::RunAll(number, handle->action); });
}

int KLIBPluginExit(KLIBPLUGIN* handle) {
  delete handle;
  return 0;
}
}
