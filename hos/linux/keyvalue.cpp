#include "klibc/keyvalue.h"

#include <optional>
#include <string>
#include <string_view>

#include "base/atomic_replace.h"
#include "hos/linux/error.h"
#include "hos/linux/file.h"
#include "hos/linux/keyvalue_text.h"
#include "hos/linux/locked_folder.h"
#include "klibc/szhash.h"
#include "klibc/szlist.h"

namespace hos_linux {
namespace {

constexpr std::string_view kSeparator = "=";

// What a C program sees of a value.
std::optional<std::string_view> TextOf(std::string_view file, std::string_view key,
                                       std::string_view separator) {
  const std::optional<std::string_view> value = FindValue(file, key, separator);
  if (!value) return std::nullopt;
  return value->substr(0, value->find('\0'));
}

int GetKeyValue(const char* path, const char* key, char* buffer, int size) {
  const FileText file = ReadFile(path, kMaxKeyValueFile);
  if (file.state == ReadState::kFailed) return -1;
  return CopyOut(TextOf(file.text, key, kSeparator).value_or(""), buffer, size);
}

bool ReplaceLine(const std::string& path, std::string_view key, std::string_view line) {
  const std::optional<LockedFolder> folder = LockedFolder::Of(path);
  if (!folder) return false;
  const std::string name = base::FileNameOf(path);
  const FileText file = folder->Read(name);
  if (file.state == ReadState::kFailed) return false;
  const std::string text = WithLine(file.text, key, line);
  if (text.size() > kMaxKeyValueFile) return False(kTooBig);
  return folder->Replace(name, text, Attributes::kKeepOrPrivate);
}

int SetKeyValue(const char* path, const char* key, const char* value, const char* line_format) {
  const std::optional<std::string> line = MakeLine(line_format, key, value);
  if (!line) return MinusOne(kBadArgument);
  return ReplaceLine(path, key, *line) ? 0 : -1;
}

int CheckKeyValue(const char* path, const char* key, const char* value) {
  const FileText file = ReadFile(path, kMaxKeyValueFile);
  if (file.state == ReadState::kFailed) return -1;
  return TextOf(file.text, key, kSeparator) == std::string_view(value) ? 1 : 0;
}

int GetKeys(const char* path, KLIBCSZLIST* keys, KLIBCSZHASH* values, const char* separator) {
  const FileText file = ReadFile(path, kMaxKeyValueFile);
  if (file.state != ReadState::kRead) return -1;
  int found = 0;
  for (int i = 0; const char* key = KLIBCSzListGet(keys, i); ++i) {
    const std::optional<std::string_view> value = TextOf(file.text, key, separator);
    if (!value) continue;
    if (KLIBCSzHashSetValue(values, key, std::string(*value).c_str()) < 0) return -1;
    ++found;
  }
  return found;
}

}  // namespace
}  // namespace hos_linux

extern "C" {

int KLIBCFileGetKeyValue(const char* path, const char* key, char* buffer, int size, int) {
  if (path == nullptr || key == nullptr || buffer == nullptr || size < 1) {
    return hos_linux::MinusOne(hos_linux::kBadArgument);
  }
  buffer[0] = '\0';
  return hos_linux::PlatformCall(-1,
                                 [=] { return hos_linux::GetKeyValue(path, key, buffer, size); });
}

int KLIBCFileSetKeyValue(const char* path, const char* key, const char* value,
                         const char* line_format) {
  if (path == nullptr || key == nullptr || value == nullptr || line_format == nullptr) {
    return hos_linux::MinusOne(hos_linux::kBadArgument);
  }
  return hos_linux::PlatformCall(
      -1, [=] { return hos_linux::SetKeyValue(path, key, value, line_format); });
}

int KLIBCFileCheckKeyValue(const char* path, const char* key, const char* value, int) {
  if (path == nullptr || key == nullptr || value == nullptr) {
    return hos_linux::MinusOne(hos_linux::kBadArgument);
  }
  return hos_linux::PlatformCall(-1, [=] { return hos_linux::CheckKeyValue(path, key, value); });
}

int KLIBCFileGetKeys(const char* path, KLIBCSZLIST* keys, KLIBCSZHASH* values,
                     const char* separator) {
  if (path == nullptr || keys == nullptr || values == nullptr || separator == nullptr) {
    return hos_linux::MinusOne(hos_linux::kBadArgument);
  }
  return hos_linux::PlatformCall(-1,
                                 [=] { return hos_linux::GetKeys(path, keys, values, separator); });
}
}
