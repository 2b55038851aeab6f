#include "lab/torture/interleavings.h"

#include <fcntl.h>
#include <sys/file.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <stdexcept>

#include "base/unique_fd.h"
#include "lab/browser.h"
#include "lab/torture/lock_watch.h"
#include "lab/torture/world.h"

namespace torture {
namespace {

using Kind = Command::Kind;

constexpr char kLogin[] = "/usr/kivo/etc/veltrix-account/private/.login.lock";
constexpr char kQuery[] = "/tmp/account_query_info.lock";
constexpr char kGet[] = "/tmp/account_login_get_token.lock";
constexpr char kRenew[] = "/tmp/account_login_renew_token.lock";
constexpr char kExchange[] = "/tmp/account_login_exchange_token.lock";

// A request that a flow can be paused at, and the locks that the flow holds meanwhile.
struct Request {
  const char* name;
  const char* path;
  std::vector<const char*> locks = {};
  int skip = 0;  // requests of that path before it
};

// What the server says in the place of its own answer to a flow's first request of the path.
struct Said {
  const char* path;
  int status;
  const char* body;
};

struct Flow {
  const char* name;
  Command command;
  void (*prepare)(World&);
  std::vector<Said> said;
  std::vector<Request> requests;
};

constexpr Said kLogoutIsGood{lab::kLogoutPath, 200, R"({"code":"good"})"};

void Unlinked(World&) {}

void Linked(World& world) { world.Link(kAnna); }

void LinkedWithAnOldSchedule(World& world) {
  world.Link(kAnna);
  World::SetRecordValue("report_cron_timestring", "1 2 * * 3");
}

void LinkedWithAnOldProfile(World& world) {
  world.Link(kAnna);
  World::AgeProfile();
}

void LinkedWithoutTokens(World& world) {
  world.Link(kAnna);
  test_files::Remove(lab::kTokens);
}

void LinkedWithExpiredTokens(World& world) {
  world.Link(kAnna);
  World::ExpireTokens();
}

void LinkedWithRevokedTokens(World& world) {
  LinkedWithExpiredTokens(world);
  world.RevokeTokens();
}

template <void (*Prepare)(World&)>
void EndedAtTheServer(World& world) {
  Prepare(world);
  world.EndLinkAtServer();
}

const std::vector<Flow>& Flows() {
  static const std::vector<Flow> flows = {
      {"report", {Kind::kReport}, LinkedWithAnOldSchedule, {}, {{"report", lab::kReportPath}}},
      {"report_refused",
       {Kind::kReport},
       EndedAtTheServer<Linked>,
       {kLogoutIsGood},
       {{"report", lab::kReportPath}, {"logout", lab::kLogoutPath}}},
      {"report_refused_with_renewal",
       {Kind::kReport},
       EndedAtTheServer<LinkedWithExpiredTokens>,
       {kLogoutIsGood},
       {{"renewal", lab::kTokenPath, {kGet, kRenew}}}},
      {"report_not_found",
       {Kind::kReport},
       EndedAtTheServer<Linked>,
       {{lab::kReportPath, 200, R"({"code":"account_not_found"})"}, kLogoutIsGood},
       {{"report", lab::kReportPath}, {"logout", lab::kLogoutPath}}},
      {"query", {Kind::kQuery}, LinkedWithAnOldProfile, {}, {{"query", lab::kQueryPath, {kQuery}}}},
      {"query_refused",
       {Kind::kQuery},
       EndedAtTheServer<LinkedWithAnOldProfile>,
       {},
       {{"query", lab::kQueryPath, {kQuery}}}},
      {"renewal",
       {Kind::kReport},
       LinkedWithExpiredTokens,
       {},
       {{"renewal", lab::kTokenPath, {kGet, kRenew}}}},
      {"grant",
       {Kind::kReport},
       LinkedWithoutTokens,
       {},
       {{"grant", lab::kGrantPath}, {"exchange", lab::kTokenPath, {kExchange}}}},
      {"rescue",
       {Kind::kReport},
       LinkedWithRevokedTokens,
       {},
       {{"renewal", lab::kTokenPath, {kGet, kRenew}},
        {"grant", lab::kGrantPath},
        {"exchange", lab::kTokenPath, {kExchange}, 1}}},
      {"rescue_refused",
       {Kind::kReport},
       EndedAtTheServer<LinkedWithRevokedTokens>,
       {{lab::kReportPath, 200, R"({"code":"good"})"}, kLogoutIsGood},
       {{"renewal", lab::kTokenPath, {kGet, kRenew}},
        {"grant", lab::kGrantPath},
        {"logout", lab::kLogoutPath}}},
      {"logout", {Kind::kLogout}, Linked, {}, {{"logout", lab::kLogoutPath}}},
      {"logout_with_renewal",
       {Kind::kLogout},
       LinkedWithExpiredTokens,
       {},
       {{"renewal", lab::kTokenPath, {kGet, kRenew}}, {"logout", lab::kLogoutPath}}},
      {"password_login",
       {Kind::kPasswordLogin, &kAnna},
       Unlinked,
       {},
       {{"register", lab::kRegisterPath, {kLogin}},
        {"login", lab::kPasswordLoginPath, {kLogin}},
        {"profile", lab::kQueryPath, {kLogin, kQuery}}}},
      {"password_login_again",
       {Kind::kPasswordLogin, &kAnna},
       LinkedWithAnOldProfile,
       {},
       {{"login", lab::kPasswordLoginPath, {kLogin}},
        {"profile", lab::kQueryPath, {kLogin, kQuery}}}},
      {"password_login_other",
       {Kind::kPasswordLogin, &kBen},
       Linked,
       {},
       {{"login", lab::kPasswordLoginPath, {kLogin}},
        {"profile", lab::kQueryPath, {kLogin, kQuery}}}},
      {"browser_login",
       {Kind::kBrowserLogin, &kAnna},
       Unlinked,
       {},
       {{"exchange", lab::kTokenPath, {kLogin, kExchange}},
        {"identity", lab::kExchangePath, {kLogin}},
        {"profile", lab::kQueryPath, {kLogin, kQuery}}}},
      {"browser_login_other",
       {Kind::kBrowserLogin, &kBen},
       Linked,
       {},
       {{"exchange", lab::kTokenPath, {kLogin, kExchange}},
        {"identity", lab::kExchangePath, {kLogin}},
        {"profile", lab::kQueryPath, {kLogin, kQuery}}}},
      {"browser_login_failing",
       {Kind::kBrowserLogin, &kBen},
       Linked,
       {{lab::kQueryPath, 500, "busy"}},
       {{"profile", lab::kQueryPath, {kLogin, kQuery}}}},
      {"browser_login_refused",
       {Kind::kBrowserLogin, &kBen},
       Linked,
       {{lab::kQueryPath, 200, R"({"code":"badauth"})"}},
       {{"profile", lab::kQueryPath, {kLogin, kQuery}}}},
  };
  return flows;
}

struct Other {
  const char* name;
  Command command;
};

constexpr std::array kOthers = {
    Other{"logout", {Kind::kLogout}},
    Other{"password_login_same", {Kind::kPasswordLogin, &kAnna}},
    Other{"password_login_other", {Kind::kPasswordLogin, &kCarla}},
    Other{"browser_login", {Kind::kBrowserLogin, &kCarla}},
    Other{"report", {Kind::kReport}},
    Other{"query", {Kind::kQuery}},
    Other{"update", {Kind::kUpdate}},
};

struct Case {
  const Flow& flow;
  const Request& request;
  const Other& other;

  [[nodiscard]] std::string Name() const {
    return std::string(flow.name) + " " + request.name + " " + other.name;
  }
};

std::vector<Case> Cases() {
  std::vector<Case> cases;
  for (const Flow& flow : Flows()) {
    for (const Request& request : flow.requests) {
      for (const Other& other : kOthers) cases.push_back({flow, request, other});
    }
  }
  return cases;
}

// --- Programs under way.

using Program = std::unique_ptr<lab::BackgroundProcess>;

Program StartNodelink(const char* option, std::vector<std::string> words) {
  words.insert(words.end(), {lab::kProgram, option});
  return std::make_unique<lab::BackgroundProcess>(words);
}

Program StartPasswordLogin(const Person& person, std::vector<std::string> words) {
  words.insert(words.end(), {lab::kLoginProgram, "--password", person.email});
  return std::make_unique<lab::BackgroundProcess>(
      words, lab::ProcessOptions{.stdin_text = std::string(person.password) + "\n"});
}

Program StartBrowserLogin(const Person& person, std::vector<std::string> words) {
  words.insert(words.end(), {lab::kLoginProgram, "--browser"});
  auto login = std::make_unique<lab::BackgroundProcess>(words);
  login->Write(lab::SignIn(login->WaitForLine("https://"), person.email, person.password) + "\n");
  return login;
}

Program StartKind(const Command& command, const std::vector<std::string>& prefix) {
  switch (command.kind) {
    case Kind::kReport:
      return StartNodelink("--report_info", prefix);
    case Kind::kQuery:
      return StartNodelink("--query_account", prefix);
    case Kind::kLogout:
      return StartNodelink("--logout", prefix);
    case Kind::kUpdate:
      return StartNodelink("--update", prefix);
    case Kind::kPasswordLogin:
      return StartPasswordLogin(*command.person, prefix);
    case Kind::kBrowserLogin:
      return StartBrowserLogin(*command.person, prefix);
  }
  throw std::logic_error("no such command");
}

// A login by browser has been told where the browser was sent to.
Program Start(const Command& command, const std::vector<std::string>& prefix = {}) {
  Program program = StartKind(command, prefix);
  program->CloseStdin();
  return program;
}

// --- What happened, and whether it is right.

struct Ended {
  Command command;
  lab::ProcessResult result;
  bool succeeded = false;

  [[nodiscard]] bool is_login() const { return succeeded && command.is_login(); }
  [[nodiscard]] bool is_logout() const { return succeeded && command.is_logout(); }
};

struct Meeting {
  std::optional<devcloud::Link> link_before;
  Ended paused;
  Ended other;
  std::optional<std::string> waited_for;  // the lock that the other one waited for
  std::size_t notices = 0;                // when the other one had ended, or began to wait
};

class Checks {
 public:
  Checks(World& world, const Case& what, const Meeting& meeting)
      : world_(world), case_(what), meeting_(meeting) {}

  // How many promises are broken; each is said on standard output.
  int Run();

 private:
  void Finding(const std::string& text);
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
  int findings_ = 0;
};

std::string Shown(const Ended& ended) {
  return std::to_string(ended.result.exit_status) + " '" + ended.result.out.substr(0, 80) + "' '" +
         ended.result.err.substr(0, 80) + "'";
}

void Checks::Finding(const std::string& text) {
  ++findings_;
  std::printf("FINDING  %s\n         %s\n         paused: %s, other: %s%s\n", case_.Name().c_str(),
              text.c_str(), Shown(meeting_.paused).c_str(), Shown(meeting_.other).c_str(),
              meeting_.waited_for ? (", waited for " + *meeting_.waited_for).c_str() : "");
  for (const std::string& line : world_.Log()) std::printf("           %s\n", line.c_str());
}

int Checks::Run() {
  CheckWhatAlwaysHolds();
  CheckEnds();
  CheckWait();
  CheckNothingIsLeft();
  CheckTokens();
  CheckEnd();
  CheckSchedule();
  return findings_;
}

void Checks::CheckWhatAlwaysHolds() {
  if (!Value("zomiID").empty() && Value("hs_auth_key").empty()) {
    Finding("the record has a zomiID and no hs_auth_key");
  }
  if (Value("zomiIDSerial").empty() != Value("hs_auth_key").empty()) {
    Finding("the record has half a link");
  }
}

void Checks::CheckEnds() {
  for (const Ended* ended : {&meeting_.paused, &meeting_.other}) {
    if (ended->result.timed_out || ended->result.signal != 0) Finding("a program did not end well");
  }
}

void Checks::CheckWait() {
  const auto& locks = case_.request.locks;
  if (meeting_.waited_for && std::none_of(locks.begin(), locks.end(), [this](const char* lock) {
        return *meeting_.waited_for == lock;
      })) {
    Finding("waited for a lock that must not be held while a server is waited for");
  }
}

void Checks::CheckNothingIsLeft() {
  for (const char* folder : {lab::kPrivateFolder, "/etc/cron.d", "/usr/kivo/etc/cloudservice"}) {
    for (const std::string& name : test_files::NamesIn(folder)) {
      const std::string path = std::string(folder) + "/" + name;
      if (name.starts_with('.') && !name.ends_with(".lock")) Finding("left behind: " + path);
      if (!name.ends_with(".lock")) continue;
      const base::UniqueFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
      if (flock(file.get(), LOCK_EX | LOCK_NB) != 0) Finding("still locked: " + path);
    }
  }
}

bool Checks::IsSameLinkAgain() const {
  const auto now = world_.ServerLink();
  const auto& before = meeting_.link_before;
  return before &&
         ((now && now->auth_key == before->auth_key) || (meeting_.other.command.person == &kAnna));
}

// A login by browser that failed late leaves its tokens, as it says.
void Checks::CheckTokens() {
  const auto owner = world_.OwnerOfTokens();
  const auto is_failed_browser_login = [](const Ended& ended) {
    return ended.command.kind == Kind::kBrowserLogin && !ended.succeeded;
  };
  if (!owner || is_failed_browser_login(meeting_.paused) ||
      is_failed_browser_login(meeting_.other)) {
    return;
  }
  if (*owner != Value("zomiIDSerial") && IsLinked()) Finding("the tokens are another account's");
}

// The last of the two that changed the link decides; who is the last when one waited for the other,
// nobody can say.
void Checks::CheckEnd() {
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
  } else if (paused.command.is_login() && !other.command.is_logout()) {
    CheckUnchanged();
  }
}

void Checks::CheckUnlinked() {
  for (const char* key : {"zomiID", "zomiIDSerial", "hs_auth_key"}) {
    if (!Value(key).empty()) Finding(std::string("after a logout the record has ") + key);
  }
  if (test_files::Exists(lab::kTokens)) Finding("after a logout there are tokens");
  if (test_files::Exists(lab::kReportJob)) Finding("after a logout there is a report job");
  if (World::Notices() != meeting_.notices) Finding("administrators were notified after a logout");
}

void Checks::CheckLinked(const Ended& login) {
  const Person& person = *login.command.person;
  const auto link = world_.ServerLink();
  if (Value("zomiIDSerial") != world_.UserIdOf(person)) {
    Finding("the record does not name the account that was logged in");
  }
  if (!link || link->user_id != Value("zomiIDSerial") || link->auth_key != Value("hs_auth_key")) {
    Finding("the record's link is not the one that the server holds");
  }
  if (Value("zomiID") != person.email) Finding("the record has another account's profile");
  if (login.command.kind == Kind::kPasswordLogin && !test_files::Exists(lab::kReportJob)) {
    Finding("after a login by password there is no report job");
  }
}

// Nothing came after the login that was against it.
void Checks::CheckLastWord(const Ended& login) {
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

void Checks::CheckUnchanged() {
  const auto& before = meeting_.link_before;
  if (Value("zomiIDSerial") != (before ? before->user_id : "") ||
      Value("hs_auth_key") != (before ? before->auth_key : "")) {
    Finding("a login that failed has changed the link");
  }
}

// A report that succeeded beside a login that failed has stored what the server gave to the link
// that it found.
void Checks::CheckSchedule() {
  const Ended& other = meeting_.other;
  if (other.command.kind != Kind::kReport || !other.succeeded || meeting_.paused.succeeded ||
      !meeting_.paused.command.is_login() || meeting_.waited_for) {
    return;
  }
  if (Value("report_cron_timestring") != kBen.schedule) {
    Finding("the schedule that a report stored is lost");
  }
}

// --- One case.

void AddFaults(World& world, const Case& what) {
  for (const Said& said : what.flow.said) {
    if (said.path == std::string(what.request.path)) continue;
    world.cloud().faults().Add(
        {.path = said.path, .count = 1, .status = said.status, .body = said.body});
  }
  devcloud::FaultRule pause{
      .path = what.request.path, .skip = what.request.skip, .count = 1, .hold = true};
  for (const Said& said : what.flow.said) {
    if (said.path != std::string(what.request.path)) continue;
    pause.status = said.status;
    pause.body = said.body;
  }
  world.cloud().faults().Add(pause);
}

Program StartAndPause(World& world, const Case& what) {
  AddFaults(world, what);
  Program program = Start(what.flow.command);
  if (world.cloud().held().WaitAndList(std::chrono::seconds(20)).empty()) {
    throw std::runtime_error(what.Name() + ": the flow does not come to this request");
  }
  return program;
}

Ended End(const Command& command, lab::BackgroundProcess& program) {
  Ended ended{command, program.Wait()};
  ended.succeeded = command.Succeeded(ended.result);
  return ended;
}

Meeting Meet(World& world, const Case& what) {
  Meeting meeting;
  what.flow.prepare(world);
  if (World::RecordValue("zomiIDSerial")) {
    meeting.link_before = devcloud::Link{.serial = lab::kSerial,
                                         .user_id = *World::RecordValue("zomiIDSerial"),
                                         .auth_key = *World::RecordValue("hs_auth_key")};
  }
  const Program paused = StartAndPause(world, what);
  LockWatch watch;
  const Program other = Start(what.other.command, watch.Prefix());
  meeting.waited_for = watch.WaitForBusyLock(other->pid());
  if (!meeting.waited_for) meeting.other = End(what.other.command, *other);
  meeting.notices = World::Notices();
  world.cloud().held().ReleaseAll();
  meeting.paused = End(what.flow.command, *paused);
  if (meeting.waited_for) meeting.other = End(what.other.command, *other);
  return meeting;
}

World& TheWorld() {
  static World world;
  return world;
}

}  // namespace

std::vector<std::string> InterleavingCases() {
  std::vector<std::string> names;
  for (const Case& what : Cases()) names.push_back(what.Name());
  return names;
}

void RunInterleaving(const std::string& name, InterleavingCounts& counts) {
  const std::vector<Case> cases = Cases();
  const auto what = std::find_if(cases.begin(), cases.end(),
                                 [&name](const Case& one) { return one.Name() == name; });
  if (what == cases.end()) throw std::runtime_error("no such case: " + name);
  World& world = TheWorld();
  world.Reset();
  const Meeting meeting = Meet(world, *what);
  ++counts.interleavings;
  if (meeting.waited_for) {
    ++counts.waits;
    std::printf("WAITS    %s for %s\n", name.c_str(), meeting.waited_for->c_str());
  }
  counts.findings += Checks(world, *what, meeting).Run();
}

}  // namespace torture
