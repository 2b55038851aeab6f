#include "kivo/crond.h"

#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <exception>
#include <optional>
#include <string>
#include <string_view>

#include "base/atomic_replace.h"
#include "hos/linux/device_facts.h"
#include "hos/linux/error.h"
#include "hos/linux/locked_folder.h"
#include "hos/linux/schedule.h"

namespace hos_linux {
namespace {

constexpr char kListPrefix[] = "/etc/cron.d/kivo-";
constexpr char kOldSchedule[] = "/etc/crontab";
constexpr char kLockFolder[] = "/usr/kivo/var";
constexpr mode_t kLockFolderMode = 0755;
constexpr char kLock[] = "/usr/kivo/var/.cron.lock";  // of the writers of both
constexpr std::size_t kLongestName = 64;
constexpr std::size_t kLongestUser = 32;
constexpr std::size_t kLongestCommand = 990;  // cron cuts a command at 1000 bytes
constexpr std::string_view kBlanks = " \t";

constexpr char kHeader[] =
    "# Written by the platform's crond configuration; changes are overwritten.\n"
    "SHELL=/bin/sh\n"
    "PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin\n";

bool IsWordCharacter(unsigned char c) { return std::isalnum(c) != 0 || c == '_' || c == '-'; }

// Cron reads no file with any other character in its name.
bool IsName(std::string_view name) {
  return !name.empty() && name.size() <= kLongestName &&
         std::all_of(name.begin(), name.end(), IsWordCharacter);
}

bool IsUser(std::string_view user) {
  constexpr std::string_view kFirst = "abcdefghijklmnopqrstuvwxyz_";
  constexpr std::string_view kOthers = "abcdefghijklmnopqrstuvwxyz_0123456789-";
  return !user.empty() && user.size() <= kLongestUser &&
         kFirst.find(user.front()) != std::string_view::npos &&
         user.find_first_not_of(kOthers) == std::string_view::npos;
}

// Single quotes keep everything from the shell but the single quote. Cron comes first, knows no
// quotes, and turns a per cent sign into a line break unless a backslash stands before it, which it
// then takes away. Some crons also make one backslash of two. So a per cent sign stands outside the
// quotes with a backslash of its own, and the quotes are closed and opened again between two
// backslashes of the word: then cron finds no pair to shorten.
std::string Quoted(std::string_view word) {
  std::string quoted = "'";
  for (const char c : word) {
    if (c == '\'') {
      quoted += "'\\''";
    } else if (c == '%') {
      quoted += "'\\%'";
    } else {
      if (c == '\\' && quoted.back() == '\\') quoted += "''";
      quoted += c;
    }
  }
  return quoted + "'";
}

bool IsCommandWord(const Json::Value& word) {
  if (!word.isString()) return false;
  const std::string text = word.asString();
  return std::none_of(text.begin(), text.end(),
                      [](unsigned char c) { return std::iscntrl(c) != 0; });
}

std::optional<std::string> CommandLine(const Json::Value& words) {
  if (!words.isArray() || words.empty()) return std::nullopt;
  std::string line;
  for (const Json::Value& word : words) {
    if (!IsCommandWord(word)) return std::nullopt;
    line.append(line.empty() ? "" : " ").append(Quoted(word.asString()));
  }
  const bool no_program = line.starts_with("''");
  if (no_program || line.size() > kLongestCommand) return std::nullopt;
  return line;
}

std::string TextOf(const Json::Value& object, const char* member) {
  const Json::Value& value = object[member];
  return value.isString() ? value.asString() : "";
}

// A schedule without drawn values needs no serial number.
std::optional<std::string> Schedule(const Json::Value& job, const std::string& job_name) {
  const std::string text = TextOf(job, "crontab");
  const bool drawn = text.find('~') != std::string::npos;
  const std::optional<std::string> serial = drawn ? SerialNumber() : "";
  return serial ? ResolveSchedule(text, *serial, job_name) : std::nullopt;
}

std::optional<std::string> JobLine(const std::string& list, const Json::Value& job) {
  if (!job.isObject() || TextOf(job, "period") != "crontab") return std::nullopt;
  const std::string name = TextOf(job, "name");
  const std::string user = TextOf(job, "user");
  if (!IsName(name) || !IsUser(user)) return std::nullopt;
  const std::optional<std::string> schedule = Schedule(job, list + "/" + name);
  const std::optional<std::string> command = CommandLine(job["cmd_list"]);
  if (!schedule || !command) return std::nullopt;
  return std::string(*schedule).append(" ").append(user) + " " + *command + "\n";
}

std::optional<std::string> ListText(const std::string& list, const Json::Value& jobs) {
  if (!jobs.isArray()) return std::nullopt;
  std::string text = kHeader;
  for (const Json::Value& job : jobs) {
    const std::optional<std::string> line = JobLine(list, job);
    if (!line) return std::nullopt;
    text += *line;
  }
  return text;
}

// The folder of `path`, held against the other writers of cron's files.
std::optional<LockedFolder> LockFor(const std::string& path) {
  (void)mkdir(kLockFolder, kLockFolderMode);  // where that fails, locking says why
  return LockedFolder::Under(kLock, path);
}

bool WriteList(const std::string& path, std::string_view text) {
  const std::optional<LockedFolder> folder = LockFor(path);
  if (!folder) return false;
  const std::string name = base::FileNameOf(path);
  // An untouched file keeps its time stamp, and cron does not read it anew.
  if (folder->IsPublicOfTheRoot(name) && folder->Read(name).text == text) return true;
  return folder->Replace(name, text, Attributes::kPublicOfTheRoot);
}

bool SaveList(const std::string& name, const Json::Value& jobs) {
  if (!IsName(name)) return False(kBadArgument);
  const std::optional<std::string> text = ListText(name, jobs);
  if (!text) return False(kBadArgument);
  return WriteList(kListPrefix + name, *text);
}

bool RemoveList(const std::string& name) {
  if (!IsName(name)) return False(kBadArgument);
  const std::optional<LockedFolder> folder = LockFor(kListPrefix);
  return folder && folder->Remove(base::FileNameOf(kListPrefix + name));
}

// What follows `fields` blank-separated fields of `line`.
std::string_view AfterFields(std::string_view line, int fields) {
  for (int i = 0; i < fields; ++i) {
    line.remove_prefix(std::min(line.find_first_not_of(kBlanks), line.size()));
    line.remove_prefix(std::min(line.find_first_of(kBlanks), line.size()));
  }
  line.remove_prefix(std::min(line.find_first_not_of(kBlanks), line.size()));
  return line;
}

// The command of a system crontab line: after the schedule and the user.
std::string_view CommandOf(std::string_view line) {
  constexpr int kPlainFields = 6;
  constexpr int kNicknameFields = 2;  // such as "@daily root"
  const std::string_view content = AfterFields(line, 0);
  if (content.starts_with('#')) return {};
  std::string_view command =
      AfterFields(content, content.starts_with('@') ? kNicknameFields : kPlainFields);
  return command.substr(0, command.find_last_not_of(" \t\r") + 1);
}

std::string WithoutCommand(std::string_view text, std::string_view command) {
  std::string kept;
  while (!text.empty()) {
    const std::size_t end = std::min(text.find('\n'), text.size() - 1) + 1;
    std::string_view line = text.substr(0, end);
    text.remove_prefix(end);
    const std::string_view content = line.substr(0, line.find('\n'));
    if (CommandOf(content) != command) kept += line;
  }
  return kept;
}

int RemoveFromOldSchedule(std::string_view command) {
  const std::optional<LockedFolder> folder = LockFor(kOldSchedule);
  if (!folder) return -1;
  const std::string name = base::FileNameOf(kOldSchedule);
  const FileText file = folder->Read(name);
  if (file.state == ReadState::kMissing) return 0;
  if (file.state == ReadState::kFailed) return -1;
  const std::string kept = WithoutCommand(file.text, command);
  if (kept == file.text) return 0;
  return folder->Replace(name, kept, Attributes::kKeepOrPrivate) ? 0 : -1;
}

}  // namespace
}  // namespace hos_linux

namespace KIVO::KIVOCrond {

ConfigManager::ConfigManager(const std::string& name, bool) : name_(name) {}

bool ConfigManager::Save(const Json::Value& jobs) {
  return hos_linux::PlatformCall(false, [&] { return hos_linux::SaveList(name_, jobs); });
}

bool ConfigManager::Remove() {
  return hos_linux::PlatformCall(false, [&] { return hos_linux::RemoveList(name_); });
}

}  // namespace KIVO::KIVOCrond

extern "C" {

int KIVOScheduleRemove(const char* command) {
  if (command == nullptr || *command == '\0') return hos_linux::MinusOne(hos_linux::kBadArgument);
  return hos_linux::PlatformCall(-1, [=] { return hos_linux::RemoveFromOldSchedule(command); });
}
}
