// Flows that meet: each is paused at each of its requests, another one runs meanwhile, and then the
// answer comes.
//
// A case is "FLOW REQUEST OTHER": the answer to REQUEST of FLOW is held while OTHER runs to its
// end, or until it waits for a lock that FLOW holds; then the answer is released, both end, and the
// device is checked.
#include <fcntl.h>
#include <sys/file.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <optional>
#include <stdexcept>

#include "base/unique_fd.h"
#include "lab/torture/kind.h"
#include "lab/torture/lock_watch.h"
#include "lab/torture/world.h"

namespace torture {
namespace {

using lab::Command;
using lab::Person;

struct Other {
  const char* name;
  Command command;
};

const std::vector<Other>& Others() {
  static const std::vector<Other> others = {
      {"logout", lab::Logout()},
      {"password_login_same", lab::PasswordLogin(lab::kAnna)},
      {"password_login_other", lab::PasswordLogin(lab::kCarla)},
      {"browser_login", lab::BrowserLogin(lab::kCarla)},
      {"report", lab::Report()},
      {"query", lab::Query()},
      {"update", lab::Update()},
  };
  return others;
}

struct Case {
  const lab::Flow& flow;
  const lab::Request& request;
  const Other& other;

  [[nodiscard]] std::string Name() const {
    return flow.name + " " + request.name + " " + other.name;
  }
};

std::vector<Case> CasesOf(const lab::Flow& flow) {
  std::vector<Case> cases;
  for (const lab::Request& request : flow.requests) {
    for (const Other& other : Others()) cases.push_back({flow, request, other});
  }
  return cases;
}

// --- What happened, and whether it is right.

struct Ended {
  Command command;
  lab::ProcessResult result;
  bool succeeded = false;

  [[nodiscard]] bool is_login() const { return succeeded && command.is_login(); }
  [[nodiscard]] bool is_logout() const { return succeeded && command.ends_link; }
};

struct Meeting {
  std::optional<devcloud::Link> link_before;
  Ended paused;
  Ended other;
  std::optional<std::string> waited_for;  // the lock that the other one waited for
  std::size_t notices = 0;                // when the other one had ended, or began to wait
};

class MeetingChecks {
 public:
  MeetingChecks(World& world, const Case& what, const Meeting& meeting, Report& report)
      : world_(world), case_(what), meeting_(meeting), report_(report) {}

  void Run();

 private:
  [[nodiscard]] std::string Place() const;
  void Finding(const std::string& text) { report_.Finding(text); }
  void CheckWhatAlwaysHolds();
  void CheckEnds();
  void CheckWait();
  void CheckNothingIsLeft();
  void CheckTokens();
  void CheckEnd();
  void CheckUnlinked();
  void CheckLinked(const Ended& login);
  void CheckLastWord(const Ended& login);
  void CheckUnchanged();
  void CheckSchedule();
  [[nodiscard]] bool IsLinked() const { return !Value("zomiIDSerial").empty(); }
  // The same account was linked again while the server still had its link: then the link is the
  // same too.
  [[nodiscard]] bool IsSameLinkAgain() const;
  static std::string Value(const char* key) { return World::RecordValue(key).value_or(""); }

  World& world_;
  const Case& case_;
  const Meeting& meeting_;
  Report& report_;
};

std::string Shown(const Ended& ended) {
  return std::to_string(ended.result.exit_status) + " '" + ended.result.out.substr(0, 80) + "' '" +
         ended.result.err.substr(0, 80) + "'";
}

std::string MeetingChecks::Place() const {
  std::string place = "paused: " + Shown(meeting_.paused) + ", other: " + Shown(meeting_.other);
  if (meeting_.waited_for) place += ", waited for " + *meeting_.waited_for;
  for (const std::string& line : world_.Log()) place += "\n           " + line;
  return place;
}

void MeetingChecks::Run() {
  report_.SetPlace(Place());
  CheckWhatAlwaysHolds();
  CheckEnds();
  CheckWait();
  CheckNothingIsLeft();
  CheckTokens();
  CheckEnd();
  CheckSchedule();
}

void MeetingChecks::CheckWhatAlwaysHolds() {
  if (!Value("zomiID").empty() && Value("hs_auth_key").empty()) {
    Finding("the record has a zomiID and no hs_auth_key");
  }
  if (Value("zomiIDSerial").empty() != Value("hs_auth_key").empty()) {
    Finding("the record has half a link");
  }
}

void MeetingChecks::CheckEnds() {
  for (const Ended* ended : {&meeting_.paused, &meeting_.other}) {
    if (ended->result.timed_out || ended->result.signal != 0) Finding("a program did not end well");
  }
}

void MeetingChecks::CheckWait() {
  const auto& locks = case_.request.locks;
  if (meeting_.waited_for && std::none_of(locks.begin(), locks.end(), [this](const char* lock) {
        return *meeting_.waited_for == lock;
      })) {
    Finding("waited for a lock that must not be held while a server is waited for");
  }
}

void MeetingChecks::CheckNothingIsLeft() {
  for (const char* folder : {lab::kPrivateFolder, lab::kJobFolder, lab::kApiKeyFolder}) {
    for (const std::string& name : test_files::NamesIn(folder)) {
      const std::string path = std::string(folder) + "/" + name;
      if (name.starts_with('.') && !name.ends_with(".lock")) Finding("left behind: " + path);
      if (!name.ends_with(".lock")) continue;
      const base::UniqueFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
      if (flock(file.get(), LOCK_EX | LOCK_NB) != 0) Finding("still locked: " + path);
    }
  }
}

bool MeetingChecks::IsSameLinkAgain() const {
  const auto now = world_.ServerLink();
  const auto& before = meeting_.link_before;
  return before && ((now && now->auth_key == before->auth_key) ||
                    (meeting_.other.command.person == &lab::kAnna));
}

// A login by browser that failed late leaves its tokens, as it says.
void MeetingChecks::CheckTokens() {
  const auto owner = world_.OwnerOfTokens();
  const auto is_failed_browser_login = [](const Ended& ended) {
    return ended.command.by_browser && !ended.succeeded;
  };
  if (!owner || is_failed_browser_login(meeting_.paused) ||
      is_failed_browser_login(meeting_.other)) {
    return;
  }
  if (*owner != Value("zomiIDSerial") && IsLinked()) Finding("the tokens are another account's");
}

// The last of the two that changed the link decides; who is the last when one waited for the other,
// nobody can say.
void MeetingChecks::CheckEnd() {
  const Ended& paused = meeting_.paused;
  const Ended& other = meeting_.other;
  const bool waited = meeting_.waited_for.has_value();
  const bool logged_in = paused.is_login() || other.is_login();
  const bool logged_out = paused.is_logout() || other.is_logout();
  if (logged_in && logged_out && (waited || (paused.is_logout() && IsSameLinkAgain()))) {
    if (IsLinked()) {
      CheckLinked(other.is_login() ? other : paused);
    } else {
      CheckUnlinked();
    }
  } else if (other.is_login() && (waited || !paused.is_login())) {
    CheckLinked(other);
    CheckLastWord(other);
  } else if (paused.is_login()) {
    CheckLinked(paused);
    CheckLastWord(paused);
  } else if (logged_out) {
    CheckUnlinked();
  } else if (paused.command.is_login() && !other.command.ends_link) {
    CheckUnchanged();
  }
}

void MeetingChecks::CheckUnlinked() {
  for (const char* key : {"zomiID", "zomiIDSerial", "hs_auth_key"}) {
    if (!Value(key).empty()) Finding(std::string("after a logout the record has ") + key);
  }
  if (test_files::Exists(lab::kTokens)) Finding("after a logout there are tokens");
  if (test_files::Exists(lab::kReportJob)) Finding("after a logout there is a report job");
  if (World::Notices() != meeting_.notices) Finding("administrators were notified after a logout");
}

void MeetingChecks::CheckLinked(const Ended& login) {
  const Person& person = *login.command.person;
  const auto link = world_.ServerLink();
  if (Value("zomiIDSerial") != world_.UserIdOf(person)) {
    Finding("the record does not name the account that was logged in");
  }
  if (!link || link->user_id != Value("zomiIDSerial") || link->auth_key != Value("hs_auth_key")) {
    Finding("the record's link is not the one that the server holds");
  }
  if (Value("zomiID") != person.email) Finding("the record has another account's profile");
  if (!login.command.by_browser && !test_files::Exists(lab::kReportJob)) {
    Finding("after a login by password there is no report job");
  }
}

// Nothing came after the login that was against it.
void MeetingChecks::CheckLastWord(const Ended& login) {
  const std::vector<std::string> calls = World::PlugInCalls();
  const auto last_login = std::find(calls.rbegin(), calls.rend(), "login 5");
  if (std::find(calls.rbegin(), last_login, "logout 4") != last_login) {
    Finding("plug-ins were told of a logout after the login");
  }
  if (last_login == calls.rend()) Finding("plug-ins were not told of the login");
  if (&login == &meeting_.other && World::Notices() != meeting_.notices) {
    Finding("administrators were notified after the login");
  }
  const std::string key = "auth_key=" + Value("hs_auth_key");
  for (const devcloud::LogEntry& entry : world_.cloud().log().Read(0, lab::kLogoutPath)) {
    if (entry.request.body.find(key) != std::string::npos && !IsSameLinkAgain()) {
      Finding("a logout carried the new key");
    }
  }
}

void MeetingChecks::CheckUnchanged() {
  const auto& before = meeting_.link_before;
  if (Value("zomiIDSerial") != (before ? before->user_id : "") ||
      Value("hs_auth_key") != (before ? before->auth_key : "")) {
    Finding("a login that failed has changed the link");
  }
}

// A report that succeeded beside a login that failed has stored what the server gave to the link
// that it found.
void MeetingChecks::CheckSchedule() {
  const Ended& other = meeting_.other;
  if (other.command.name != lab::Report().name || !other.succeeded || meeting_.paused.succeeded ||
      !meeting_.paused.command.is_login() || meeting_.waited_for) {
    return;
  }
  if (Value("report_cron_timestring") != lab::kBen.schedule) {
    Finding("the schedule that a report stored is lost");
  }
}

// --- One case.

void AddFaults(World& world, const Case& what) {
  devcloud::FaultRule pause{
      .path = what.request.path, .skip = what.request.skip, .count = 1, .hold = true};
  for (const lab::Said& said : what.flow.said) {
    if (std::strcmp(said.path, what.request.path) == 0) {
      pause.status = said.status;
      pause.body = said.body;
    } else {
      world.cloud().faults().Add(
          {.path = said.path, .count = 1, .status = said.status, .body = said.body});
    }
  }
  world.cloud().faults().Add(pause);
}

using Program = std::unique_ptr<lab::BackgroundProcess>;

Program StartAndPause(World& world, const Case& what) {
  AddFaults(world, what);
  Program program = Start(what.flow.command);
  if (world.cloud().held().WaitAndList(std::chrono::seconds(20)).empty()) {
    throw std::runtime_error(what.Name() + ": the flow does not come to this request");
  }
  return program;
}

Ended AwaitEnd(const Command& command, lab::BackgroundProcess& program) {
  Ended ended{command, program.Wait()};
  ended.succeeded = command.good.Fits(ended.result);
  return ended;
}

Meeting Meet(World& world, const Case& what) {
  Meeting meeting;
  world.Prepare(what.flow);
  if (World::RecordValue("zomiIDSerial")) {
    meeting.link_before = devcloud::Link{.serial = lab::kSerial,
                                         .user_id = *World::RecordValue("zomiIDSerial"),
                                         .auth_key = *World::RecordValue("hs_auth_key")};
  }
  const Program paused = StartAndPause(world, what);
  LockWatch watch;
  const Program other = Start(what.other.command, watch.Prefix());
  meeting.waited_for = watch.WaitForBusyLock(other->pid());
  if (!meeting.waited_for) meeting.other = AwaitEnd(what.other.command, *other);
  meeting.notices = World::Notices();
  world.cloud().held().ReleaseAll();
  meeting.paused = AwaitEnd(what.flow.command, *paused);
  if (meeting.waited_for) meeting.other = AwaitEnd(what.other.command, *other);
  return meeting;
}

class Interleavings : public Kind {
 public:
  explicit Interleavings(Report& report) : Kind(report) { World::InstallPlugIns(); }

  std::vector<std::string> Flows() override {
    std::vector<std::string> names;
    for (const lab::Flow& flow : lab::Flows()) {
      if (!flow.requests.empty()) names.push_back(flow.name);
    }
    return names;
  }

  std::vector<std::string> Cases(const std::string& flow, const Selection& selection) override {
    std::vector<std::string> names;
    ForEachCase([&](const Case& what) {
      if (what.flow.name == flow && selection.Takes(what.Name())) names.push_back(what.Name());
    });
    return names;
  }

  void RunCase(const std::string& name) override {
    bool found = false;
    ForEachCase([&](const Case& what) {
      if (what.Name() != name) return;
      found = true;
      Run(what);
    });
    if (!found) throw std::runtime_error("no such case: " + name);
  }

 private:
  template <typename Function>
  static void ForEachCase(Function function) {
    for (const lab::Flow& flow : lab::Flows()) {
      for (const Case& what : CasesOf(flow)) function(what);
    }
  }

  void Run(const Case& what) {
    world_.Reset();
    const Meeting meeting = Meet(world_, what);
    report().Add(Count::kInterleavings);
    if (meeting.waited_for) {
      report().Add(Count::kWaits);
      std::printf("WAITS    %s for %s\n", what.Name().c_str(), meeting.waited_for->c_str());
    }
    MeetingChecks(world_, what, meeting, report()).Run();
  }

  World world_;
};

}  // namespace

std::unique_ptr<Kind> MakeInterleavings(Report& report) {
  return std::make_unique<Interleavings>(report);
}

}  // namespace torture
