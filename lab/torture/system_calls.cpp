// Fails and kills the programs at one system call after another.
//
// A case is "FLOW SYSCALL N ERRNO": in FLOW, the Nth SYSCALL of each process and thread fails with
// ERRNO, or kills it when ERRNO is KILL. Of execve, N is the program that cannot be executed.
#include <algorithm>
#include <array>
#include <compare>
#include <filesystem>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <stdexcept>
#include <utility>

#include "lab/torture/fault_kind.h"
#include "lab/torture/trace.h"

namespace torture {
namespace {

using lab::Way;
using Names = std::set<std::string>;

constexpr char kKill[] = "KILL";
constexpr char kCaseTrace[] = "/var/tmp/torture/trace.case";
constexpr char kSurveyTrace[] = "/var/tmp/torture/trace.all";
constexpr char kWorkersTrace[] = "/var/tmp/torture/worker/trace";

// What each call fails with. EINTR stands where a caller has to cope with it. Calls that cannot
// fail on what they are given here, such as the fcntl of an open descriptor, are not among them.
const std::map<std::string, std::vector<std::string>>& Errors() {
  static const std::map<std::string, std::vector<std::string>> errors = {
      {"openat", {"EACCES", "EMFILE"}},
      {"read", {"EIO", "EINTR"}},
      {"write", {"ENOSPC", "EIO", "EINTR"}},
      {"fsync", {"EIO"}},
      {"close", {"EIO"}},
      {"pread64", {"EIO"}},
      {"newfstatat", {"EIO"}},
      {"getdents64", {"EIO"}},
      {"getrandom", {"ENOSYS"}},
      {"rename", {"EIO", "ENOSPC"}},
      {"renameat", {"ENOSPC", "EIO"}},
      {"renameat2", {"ENOSPC", "EIO"}},
      {"unlink", {"EACCES", "EIO"}},
      {"unlinkat", {"EACCES", "EIO"}},
      {"mkdir", {"EACCES"}},
      {"mkdirat", {"EACCES"}},
      {"umask", {}},
      {"chmod", {"EACCES"}},
      {"fchmod", {"EACCES"}},
      {"fchmodat", {"EACCES"}},
      {"chown", {"EACCES"}},
      {"fchown", {"EACCES"}},
      {"fchownat", {"EACCES"}},
      {"setresuid", {"EPERM"}},
      {"setresgid", {"EPERM"}},
      {"flock", {"EINTR", "ENOLCK"}},
      {"socket", {"EMFILE", "EACCES"}},
      {"socketpair", {"EMFILE"}},
      {"connect", {"ECONNREFUSED", "EINTR"}},
      {"sendto", {"ECONNRESET", "EINTR"}},
      {"sendmsg", {"ECONNRESET"}},
      {"recvfrom", {"ECONNRESET", "EINTR"}},
      {"recvmsg", {"ECONNRESET"}},
      {"poll", {"EINTR", "ENOMEM"}},
      {"pipe2", {"EMFILE"}},
      {"setsockopt", {"ENOBUFS"}},
      {"getsockopt", {"ENOBUFS"}},
      {"getsockname", {"ENOBUFS"}},
      {"getpeername", {"ENOTCONN"}},
      {"clone", {"EAGAIN"}},
      {"clone3", {"EAGAIN"}},
      {"fork", {"EAGAIN"}},
      {"vfork", {"EAGAIN"}},
      {"execve", {"EACCES", "ENOMEM"}},
      {"setpgid", {"EPERM"}},
      {"close_range", {"ENOSYS"}},
      {"wait4", {"EINTR", "ECHILD"}},
      {"setgroups", {"EPERM"}},
      {"capset", {"EPERM"}},
      {"chdir", {"EACCES"}},
      {"dup2", {"EBADF"}},
      {"prctl", {"EPERM"}},
      {"prlimit64", {"EPERM"}},
      {"landlock_create_ruleset", {"ENOSYS", "EPERM"}},
      {"landlock_add_rule", {"EINVAL"}},
      {"landlock_restrict_self", {"EPERM"}},
      {"seccomp", {"ENOSYS", "EPERM"}},
      {"pidfd_open", {"ENOSYS", "EMFILE"}},
  };
  return errors;
}

// Where a program is killed, and where its worker is: at what that does with its files, with the
// network and with its channel.
const Names& KillingCalls(Way way) {
  static const Names programs = {"write",     "fsync",     "rename", "renameat", "renameat2",
                                 "unlink",    "unlinkat",  "chmod",  "fchmod",   "chown",
                                 "setresuid", "setresgid", "sendto", "recvfrom"};
  static const Names workers = {"prctl", "openat", "socket",   "connect", "read",
                                "write", "sendto", "recvfrom", "poll",    "close"};
  return way == Way::kWorker ? workers : programs;
}

// What matters when the effective ids change around each access.
bool ConcernsIds(const std::string& call) {
  static const Names calls = {"setresuid", "setresgid", "renameat", "write",
                              "fsync",     "chmod",     "chown"};
  return calls.contains(call);
}

std::string ListOfCalls() {
  std::string list = "trace=execve";
  for (const auto& [call, errors] : Errors()) list += "," + call;
  return list;
}

// A call of a flow: the Nth of its name in a process, or the execve of a program.
struct Place {
  std::string call;
  unsigned number = 0;
  std::string program;

  // It takes the 0 of the compiler's own comparison for a pointer.
  // NOLINTNEXTLINE(modernize-use-nullptr)
  auto operator<=>(const Place&) const = default;
  [[nodiscard]] std::string Text() const {
    return call + " " + (program.empty() ? std::to_string(number) : program);
  }
};

// --- Numbering the calls of a recorded run. ---

bool Matches(const TracedCall& call, const char* pattern) {
  static std::map<const char*, std::regex> known;
  const auto regex = known.try_emplace(pattern, pattern, std::regex::optimize).first;
  return std::regex_search(call.text, regex->second);
}

constexpr char kOwnPath[] = "/usr/kivo|/tmp/account_|/etc/cron";
constexpr char kFolder[] = "<[^>]*/(private|cloudservice|cron\\.d|etc|var|\\.[a-z]+\\.lock)>";
constexpr char kLibrary[] = "[<\"]/(usr/)?lib/[^>\"]*\\.so|/ld\\.so\\.";

// A close that fails has closed all the same, yet strace leaves it out: that would keep the lock on
// a folder or on a lock of root's, so those are not taken. Crypto libraries end a process that is
// denied randomness: only the names of temporary files have to do without.
bool CanFail(const TracedCall& call) {
  if (Matches(call, kLibrary)) return false;
  if (call.name == "close") {
    return !Matches(call, kFolder) && (Matches(call, kOwnPath) || call.Contains("socket:"));
  }
  if (call.name == "getrandom") return call.Contains(", 8, 0)");
  return call.name != "newfstatat" || Matches(call, kOwnPath);
}

// From the program's own first call: the loader's are not its own, nor are those that load a system
// library later. A call of another thread or process can only be reached beyond the loader's
// number. Of the programs that it runs only removals count.
class Numbering {
 public:
  std::set<Place> Places(const Trace& trace) {
    for (const TracedCall& call : trace.calls) Take(call);
    return std::move(places_);
  }

 private:
  void Take(const TracedCall& call) {
    if (main_ == 0) main_ = call.process;
    const unsigned number = ++counts_[call.process][call.name];
    if (call.name == "execve") {
      TakeProgram(call);
      return;
    }
    if (is_running_ && !has_started_ && call.process == main_) LookForStart(call);
    if (!has_started_ || number <= loaders_[call.name]) return;
    if (call.process != main_ && executed_.contains(call.process) &&
        !call.name.starts_with("unlink")) {
      return;
    }
    if (CanFail(call)) places_.insert({call.name, number, ""});
  }

  void TakeProgram(const TracedCall& call) {
    if (Matches(call, "^execve\\(\"[^\"]*/nodelink")) is_running_ = true;
    const bool first = executed_.insert(call.process).second;
    if (call.process == main_ || !first) return;
    const std::size_t begin = call.text.find('"') + 1;
    places_.insert({call.name, 0, call.text.substr(begin, call.text.find('"', begin) - begin)});
  }

  void LookForStart(const TracedCall& call) {
    if (call.name != "socket" && call.name != "prctl" && !call.text.starts_with("read(0") &&
        !call.Contains("kivo") && !call.Contains("/tmp/account_")) {
      return;
    }
    has_started_ = true;
    loaders_ = counts_[main_];
    --loaders_[call.name];
  }

  using Counts = std::map<std::string, unsigned>;

  pid_t main_ = 0;
  bool is_running_ = false;  // the program, not what starts it
  bool has_started_ = false;
  std::map<pid_t, Counts> counts_;
  Counts loaders_;
  std::set<pid_t> executed_;  // processes that run programs of their own
  std::set<Place> places_;
};

// --- What a disturbed run shows. ---

std::string ChangeText(const std::string& what, const std::string& start,
                       const std::string& value) {
  return " " + what + " " + value + " instead of " + start;
}

// The umask and the effective ids of each process when it ended, against those that it was started
// with, or that it had when one of its calls to change them failed: from then on it keeps those.
class Identities {
 public:
  std::string WhatChanged(const Trace& trace) {
    for (const TracedCall& call : trace.calls) {
      if (!call.ended()) continue;
      if (call.name == "umask") TakeMask(call);
      if (call.name.starts_with("setres")) TakeIds(call);
    }
    std::string changed;
    for (const auto& [process, now] : now_) {
      for (const auto& [what, value] : now) {
        const std::string& start = start_[process][what];
        if (value != start) changed += ChangeText(what, start, value);
      }
    }
    return changed;
  }

 private:
  void TakeMask(const TracedCall& call) {
    const auto octal = [](const std::string& text) {
      return std::to_string(std::stoul(text, nullptr, 8));
    };
    start_[call.process].try_emplace("umask", octal(call.result));
    now_[call.process]["umask"] = octal(ArgumentsOf(call).at(0));
  }

  // setresuid(real, effective, saved)
  void TakeIds(const TracedCall& call) {
    const std::vector<std::string> ids = ArgumentsOf(call);
    if (ids.at(0) == "0") {
      start_[call.process][call.name] = now_[call.process][call.name] = ids.at(1);
    } else if (call.injected) {
      for (const char* name : {"setresuid", "setresgid"}) {
        if (now_[call.process].contains(name)) {
          start_[call.process][name] = now_[call.process][name];
        }
      }
    } else if (ids.at(0) == "-1") {
      now_[call.process][call.name] = ids.at(1);
      start_[call.process].try_emplace(call.name, "0");  // root's
    }
  }

  using Values = std::map<std::string, std::string>;
  std::map<pid_t, Values> start_;
  std::map<pid_t, Values> now_;
};

Fault FaultIn(const Trace& trace, bool killed) {
  Fault fault{.killed = killed};
  for (const TracedCall& call : trace.calls) {
    if (!call.injected) continue;
    if (Matches(call, "^write\\([12]<")) fault.output_failed = true;
    if (call.Contains("user.conf")) fault.record_unread = true;
  }
  return fault;
}

std::string FirstFaultIn(const Trace& trace) {
  constexpr std::size_t kMost = 160;
  for (const TracedCall& call : trace.calls) {
    if (call.injected || call.result == "?") return call.text.substr(0, kMost);
  }
  return "(unknown)";
}

// The server had given new tokens for the old refresh token when the program was killed, so that
// token is used up: the next run must have used the auth key.
bool LostTokens(const Trace& trace) {
  return std::any_of(trace.calls.begin(), trace.calls.end(), [](const TracedCall& call) {
    return call.result == "?" && call.Contains("login_token.json");
  });
}

bool IsReached(const Trace& trace) {
  return trace.killed || std::any_of(trace.calls.begin(), trace.calls.end(),
                                     [](const TracedCall& call) { return call.injected; });
}

// The tracer may not get hold of a call that it was to fail, and says so where the program prints
// its errors.
bool MissedTheCall(lab::ProcessResult& result) {
  const std::size_t begin = result.err.find("strace: Failed to tamper");
  if (begin == std::string::npos) return false;
  result.err.erase(begin, result.err.find('\n', begin) + 1 - begin);
  return true;
}

// --- The kind. ---

struct Case {
  Place place;
  std::string error;
};

Case ParseCase(const std::string& name) {
  std::istringstream words(name);
  std::string flow;
  std::string where;
  Case what;
  if (!(words >> flow >> what.place.call >> where >> what.error)) {
    throw std::runtime_error("no such case: " + name);
  }
  if (what.place.call == "execve") {
    what.place.program = where;
  } else {
    what.place.number = static_cast<unsigned>(std::stoul(where));
  }
  return what;
}

std::vector<std::string> Injection(const Case& what) {
  const std::string& call = what.place.call;
  const std::string inject = "inject=" + call;
  if (call == "execve") {  // the path chooses among the programs
    return {"--trace-path=" + what.place.program,
            "--quiet=attach,path-resolution",
            "-e",
            inject + ":error=" + what.error + ":when=1",
            "-e",
            "trace=" + call};
  }
  const std::string when = ":when=" + std::to_string(what.place.number);
  if (what.error == kKill) {  // a signal is lost at the stop that the filter makes
    return {"-e", inject + ":signal=KILL" + when, "-e", "trace=" + call};
  }
  return {"--seccomp-bpf", "-e", inject + ":error=" + what.error + when, "-e",
          "trace=" + call + ",umask,setresuid,setresgid"};
}

class SystemCalls : public FaultKind {
 public:
  explicit SystemCalls(Report& report)
      : FaultKind(report, {Way::kItself, Way::kWorker, Way::kDeserted, Way::kForeign},
                  std::chrono::seconds(20)) {}

  void Survey(const std::string& flow) override;
  std::vector<std::string> Cases(const std::string& flow, const Selection& selection) override;
  void RunCase(const std::string& name) override;

 private:
  lab::ProcessResult RunSurveyed() override {
    return RunTraced(kSurveyTrace, {"-e", ListOfCalls()});
  }
  lab::ProcessResult RunTraced(const char* trace, const std::vector<std::string>& options);
  static void Desert();
  [[nodiscard]] std::vector<std::string> FailingCases(const std::set<Place>& places) const;
  [[nodiscard]] std::vector<std::string> KillingCases(const std::set<Place>& places) const;
  [[nodiscard]] std::vector<std::string> AnsweredRenewal(const Trace& trace) const;
  void CountCase(bool reached, const Case& what);
  [[nodiscard]] bool IsDisturbedAt(const Place& place) const {
    return subject().way != Way::kForeign || ConcernsIds(place.call);
  }
  void CheckRescue(const Trace& trace);
};

void SystemCalls::Survey(const std::string& flow) {
  FaultKind::Survey(flow);
  if (subject().way != Way::kDeserted) return;
  Prepare();
  Desert();
  (void)RunSurveyed();
  World::StartWorkerAlone(lab::kHttpWorker);
}

// The worker dies when it is to connect.
void SystemCalls::Desert() {
  World::StartWorkerBehind(lab::kHttpWorker,
                           "strace -f -o /dev/null -e 'inject=connect:signal=KILL'");
}

// For whichever of the flow's programs is disturbed.
lab::ProcessResult SystemCalls::RunTraced(const char* trace,
                                          const std::vector<std::string>& options) {
  const bool of_worker = subject().way == Way::kWorker;
  std::vector<std::string> tracer = {"strace", "-f", "-y", "-o", of_worker ? kWorkersTrace : trace};
  tracer.insert(tracer.end(), options.begin(), options.end());
  test_files::Remove(trace);
  if (!of_worker) return RunFlow(tracer);
  test_files::Remove(kWorkersTrace);
  std::string words;
  for (const std::string& word : tracer) words += "'" + word + "' ";
  World::StartWorkerBehind(lab::kHttpWorker, words);
  lab::ProcessResult result = RunFlow();
  World::StartWorkerAlone(lab::kHttpWorker);
  if (test_files::Exists(kWorkersTrace)) {
    std::filesystem::rename(kWorkersTrace, trace);
  } else {
    report().Finding("no worker was started");
  }
  return result;
}

std::vector<std::string> SystemCalls::FailingCases(const std::set<Place>& places) const {
  std::vector<std::string> cases;
  for (const Place& place : places) {
    if (!IsDisturbedAt(place)) continue;
    for (const std::string& error : Errors().at(place.call)) {
      cases.push_back(subject().Name() + " " + place.Text() + " " + error);
    }
  }
  return cases;
}

std::vector<std::string> SystemCalls::KillingCases(const std::set<Place>& places) const {
  std::vector<std::string> cases;
  for (const Place& place : places) {
    if (IsDisturbedAt(place) && KillingCalls(subject().way).contains(place.call)) {
      cases.push_back(subject().Name() + " " + place.Text() + " " + kKill);
    }
  }
  return cases;
}

// The kill between the answer to a renewal and the storing of its tokens is in every sample.
std::vector<std::string> SystemCalls::AnsweredRenewal(const Trace& trace) const {
  if (!flow().saves_tokens || subject().way != Way::kItself) return {};
  unsigned number = 0;
  for (const TracedCall& call : trace.calls) {
    if (call.name != "renameat") continue;
    ++number;
    if (call.Contains("login_token")) {
      return {subject().Name() + " renameat " + std::to_string(number) + " " + kKill};
    }
  }
  return {};
}

// The first of each call, and every so many of all.
std::vector<std::string> SystemCalls::Cases(const std::string& /*flow*/,
                                            const Selection& selection) {
  const Trace trace = ReadTrace(kSurveyTrace);
  const std::set<Place> places = Numbering().Places(trace);
  std::vector<std::string> chosen;
  std::string last_group;
  const auto choose = [&](const std::string& name, const std::string& group) {
    const bool first = group != std::exchange(last_group, group);
    if ((first || selection.IsSampled(name)) && selection.IsShared(name) &&
        std::find(chosen.begin(), chosen.end(), name) == chosen.end()) {
      chosen.push_back(name);
    }
  };
  for (const std::string& name : FailingCases(places)) choose(name, ParseCase(name).place.call);
  for (const auto& names : {KillingCases(places), AnsweredRenewal(trace)}) {
    for (const std::string& name : names) choose(name, ParseCase(name).place.call + " " + kKill);
  }
  return chosen;
}

void SystemCalls::RunCase(const std::string& name) {
  const Case what = ParseCase(name);
  const bool killed = what.error == kKill;
  Prepare();
  checks().NoteStart(subject());
  if (subject().way == Way::kDeserted) Desert();
  lab::ProcessResult result = RunTraced(kCaseTrace, Injection(what));
  const bool missed = MissedTheCall(result);
  const Trace trace = ReadTrace(kCaseTrace);
  const Fault fault = FaultIn(trace, killed && subject().way != Way::kWorker);
  SetPlace(FirstFaultIn(trace));
  CountCase(!missed && IsReached(trace), what);
  checks().CheckEnd(result, fault, limit());
  if (!fault.killed) {
    checks().CheckLeftovers("after the fault");
    const std::string changed = Identities().WhatChanged(trace);
    if (!changed.empty()) report().Finding("not restored:" + changed);
  }
  checks().CheckState(fault);
  CheckAgain(fault);
  if (flow().saves_tokens && subject().way == Way::kItself && killed) CheckRescue(trace);
}

void SystemCalls::CountCase(bool reached, const Case& what) {
  if (!reached) {
    report().Add(Count::kNotReached);  // the network answered in other pieces this time
  } else {
    report().Add(what.error == kKill ? Count::kKills : Count::kFaults);
  }
}

void SystemCalls::CheckRescue(const Trace& trace) {
  if (!LostTokens(trace)) return;
  report().Add(Count::kRescues);
  const std::vector<std::string> log = world().Log();
  if (std::none_of(log.begin(), log.end(), [](const std::string& line) {
        return line.find("Rescue hos renew pkce token by authkey") != std::string::npos;
      })) {
    report().Finding("the lost tokens were not rescued by the auth key");
  }
}

}  // namespace

std::unique_ptr<Kind> MakeSystemCalls(Report& report) {
  return std::make_unique<SystemCalls>(report);
}

}  // namespace torture
