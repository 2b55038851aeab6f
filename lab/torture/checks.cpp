#include "lab/torture/checks.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <stdexcept>

#include "base/unique_fd.h"

namespace torture {
namespace {

constexpr int kTimeToEnd = 20'000;  // ms
constexpr std::size_t kMostShown = 200;

// A new value of its own at every login or query.
bool IsVolatile(const std::string& key) { return key == "hs_auth_key" || key == "last_query_time"; }

template <typename Map>
bool Has(const Map& map, const std::string& key, const std::string& value) {
  const auto found = map.find(key);
  return found != map.end() && found->second == value;
}

template <typename Map>
std::string ValueOf(const Map& map, const std::string& key) {
  const auto found = map.find(key);
  return found == map.end() ? "" : found->second;
}

std::string Shown(const std::string& text) {
  return text.substr(0, std::min(kMostShown, text.find_last_not_of('\n') + 1));
}

std::string StatusOf(const lab::ProcessResult& result) {
  return result.signal == 0 ? std::to_string(result.exit_status)
                            : "signal " + std::to_string(result.signal);
}

// Of an undisturbed login, which knows whom it has logged in.
bool NamesThePerson(const lab::Command& command, const lab::ProcessResult& result) {
  return !command.is_login() ||
         result.out.ends_with(std::string("Logged in as ") + command.person->email + "\n");
}

bool IsWholeTokenFile(const Json::Value& tokens) {
  for (const char* name : {"access_token", "id_token", "refresh_token", "created_at"}) {
    if (!tokens.isObject() || !tokens.isMember(name) || tokens[name].isNull()) return false;
  }
  return true;
}

// "" of one that has ended meanwhile.
std::string NameOfProcess(const std::string& folder) {
  try {
    const std::string name = test_files::Read(folder + "/comm");
    return name.substr(0, name.find('\n'));
  } catch (const std::ios_base::failure&) {
    return "";
  }
}

// A worker outlives a program that was killed by some moments.
bool EndsByItself(const std::string& process, const std::string& name) {
  if (!name.starts_with("nodelink-http")) return false;
  const base::UniqueFd end(
      static_cast<int>(syscall(SYS_pidfd_open, std::strtol(process.c_str(), nullptr, 10), 0)));
  if (!end) return true;  // it has ended
  pollfd ended{end.get(), POLLIN, 0};
  return poll(&ended, 1, kTimeToEnd) == 1;
}

bool IsLocked(const std::string& path) {
  const base::UniqueFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  return file && flock(file.get(), LOCK_EX | LOCK_NB) != 0;
}

bool IsLeftover(const std::string& name) {
  return name.starts_with('.') && !name.ends_with(".lock");
}

}  // namespace

std::string Subject::Name() const {
  switch (way) {
    case lab::Way::kItself: return flow->name;
    case lab::Way::kWorker: return "worker_" + flow->name;
    case lab::Way::kDeserted: return "deserted_" + flow->name;
    case lab::Way::kForeign: return "foreign_" + flow->name;
  }
  return "?";
}

void Checks::NoteStart(const Subject& subject) {
  subject_ = subject;
  before_ = ReadState();
}

void Checks::NoteEnd(const lab::ProcessResult& result) {
  if (!IsGoodEnd(result)) {
    throw std::runtime_error(subject_.Name() + " does not work: " + StatusOf(result) + " " +
                             result.out + result.err);
  }
  after_ = ReadState();
}

// --- The end of a program. ---

bool Checks::IsGoodEnd(const lab::ProcessResult& result) const {
  return flow().command.good.Fits(result) && NamesThePerson(flow().command, result);
}

bool Checks::IsKnownEnd(const lab::ProcessResult& result, const Fault& fault) const {
  const lab::Command& command = flow().command;
  if (fault.output_failed || command.failed.Fits(result)) return true;
  return command.good.Fits(result) && (fault.record_unread || NamesThePerson(command, result));
}

void Checks::CheckEnd(const lab::ProcessResult& result, const Fault& fault,
                      std::chrono::seconds limit) const {
  if (result.timed_out) {
    report_.Finding("no end within " + std::to_string(limit.count()) + " s");
  } else if (fault.killed) {
    return;
  } else if (result.signal != 0) {
    report_.Finding("ended by signal " + std::to_string(result.signal) + ": " + Shown(result.err));
  } else if (!IsKnownEnd(result, fault)) {
    report_.Finding("unknown end: status " + StatusOf(result) + ", printed '" + Shown(result.out) +
                    "', errors '" + Shown(result.err) + "'");
  }
}

// --- The state of the device. ---

void Checks::CheckState(const Fault& fault) {
  CheckLocks();
  CheckProcesses();
  CheckRecord();
  CheckTokens();
  CheckSchedules(fault);
}

bool Checks::MayVanish() const {
  return flow().may_log_out || before_.record.empty() || after_.record.empty();
}

void Checks::CheckRecord() {
  const auto record = ReadRecord();
  now_ = record.value_or(Record{});
  if (!record) {
    report_.Finding("the record is not whole");
  } else if (!test_files::Exists(lab::kRecord)) {
    if (!MayVanish()) report_.Finding("the record is gone");
  } else {
    for (const auto& [key, value] : now_) CheckValue(key, value);
    for (const auto& [key, value] : before_.record) {
      if (!now_.contains(key) && after_.record.contains(key)) {
        report_.Finding("the record has lost " + key);
      }
    }
    CheckMode(lab::kRecord);
  }
}

void Checks::CheckValue(const std::string& key, const std::string& value) const {
  if ((IsVolatile(key) && !value.empty()) || Has(before_.record, key, value) ||
      Has(after_.record, key, value)) {
    return;
  }
  report_.Finding("the record's " + key + " is neither old nor new: " + value);
}

// The tokens are of whatever group the process was left with.
void Checks::CheckMode(const char* path) const {
  struct stat status {};
  if (stat(path, &status) != 0) return;
  const bool is_record = std::string(path) == lab::kRecord;
  if ((status.st_mode & 07777U) == 0600 && status.st_uid == 0 &&
      (status.st_gid == 0 || !is_record)) {
    return;
  }
  std::ostringstream text;
  text << path << " has mode and owner " << std::oct << (status.st_mode & 07777U) << std::dec << " "
       << status.st_uid << ":" << status.st_gid;
  report_.Finding(text.str());
}

void Checks::CheckTokens() const {
  if (!test_files::Exists(lab::kTokens)) return;
  bool whole = false;
  try {
    whole = IsWholeTokenFile(lab::Device::Tokens());
  } catch (const Json::Exception&) {  // no JSON
  }
  if (!whole) report_.Finding("the token file is not whole");
  CheckMode(lab::kTokens);
}

void Checks::CheckSchedules(const Fault& fault) const {
  for (const std::string path : {lab::kReportJob, lab::kCrontab}) {
    const bool may_go = !before_.schedules.contains(path) || !after_.schedules.contains(path) ||
                        (flow().may_log_out && path == lab::kReportJob);
    if (!test_files::Exists(path)) {
      if (!may_go) report_.Finding(path + " is gone");
    } else if (const std::string text = test_files::Read(path);
               !Has(before_.schedules, path, text) && !Has(after_.schedules, path, text) &&
               !IsOtherGoodJob(path, fault)) {
      report_.Finding(path + " is neither old nor new");
    }
  }
}

// A login installs the job before it knows the server's schedule, unless an earlier login has
// stored it. A service account cannot write the job, unless its ids could not be put back.
bool Checks::MayKeepAnotherJob() const {
  return flow().command.is_login() ||
         (subject_.way == lab::Way::kForeign && flow().stored == lab::Stored::kOldSchedule);
}

// A record that cannot be read gives the default schedule.
bool Checks::IsOtherGoodJob(const std::string& path, const Fault& fault) const {
  if (path != lab::kReportJob) return false;
  const std::string job = test_files::Read(path);
  if (job == jobs_.by_default) return MayKeepAnotherJob() || fault.record_unread;
  return MayKeepAnotherJob() && job == jobs_.by_server;
}

void Checks::CheckLeftovers(const std::string& when) const {
  std::string left;
  const auto look = [&left](const std::string& folder) {
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
      if (entry.is_regular_file() && IsLeftover(entry.path().filename())) {
        left += " " + entry.path().string();
      }
    }
  };
  for (const char* folder : kStateFolders) look(folder);
  look("/etc");
  if (!left.empty()) report_.Finding("left behind " + when + ":" + left);
}

void Checks::CheckLocks() const {
  std::string held;
  const auto look = [&held](const std::string& path) {
    if (IsLocked(path)) held += " " + path;
  };
  for (const char* folder : kStateFolders) look(folder);
  for (const std::string& name : test_files::NamesIn(lab::kPrivateFolder)) {
    if (name.ends_with(".lock")) look(lab::kPrivateFolder + ("/" + name));
  }
  for (const std::string& name : test_files::NamesIn("/tmp")) {
    if (name.starts_with("account_")) look("/tmp/" + name);
  }
  if (!held.empty()) report_.Finding("still locked:" + held);
}

void Checks::CheckProcesses() const {
  for (const std::string& process : test_files::NamesIn("/proc")) {
    if (process.find_first_not_of("0123456789") != std::string::npos) continue;
    const std::string name = NameOfProcess("/proc/" + process);
    if (name.starts_with("nodelink") && !EndsByItself(process, name)) {
      report_.Finding("still running: " + name);
    }
  }
}

// --- The flow, run again. ---

void Checks::CheckAgain(const lab::ProcessResult& result, const Fault& fault) {
  if (!IsGoodEnd(result)) {
    report_.Finding("run again: status " + StatusOf(result) + ", " + Shown(result.out) + " " +
                    Shown(result.err));
  }
  CheckState(fault);
  for (const auto& [key, value] : after_.record) {
    if (!IsVolatile(key) && ValueOf(now_, key) != value) {
      report_.Finding("run again: the record's " + key + " is '" + ValueOf(now_, key) + "'");
    }
  }
  CheckEndingFiles(fault);
  CheckLeftovers("after the flow was run again");
}

void Checks::CheckEndingFiles(const Fault& fault) const {
  for (const std::string path : {lab::kReportJob, lab::kCrontab}) {
    if (test_files::Read(path) != ValueOf(after_.schedules, path) &&
        !(MayKeepAnotherJob() && IsOtherGoodJob(path, fault))) {
      report_.Finding("run again: " + path + " is not what the flow makes");
    }
  }
  if (test_files::Exists(lab::kTokens) != after_.has_tokens) {
    report_.Finding(std::string("run again: token file there: ") +
                    (after_.has_tokens ? "no" : "yes"));
  }
}

}  // namespace torture
