// A scripted platform: every platform call of hos/include, in memory, recorded, and able to fail.
//
// Link `fake_hos` in the place of the real platform. The one exception from "in memory" are
// key-value files and file locks: they are real files at the paths given, because the program under
// test also calls access, chmod, chown and unlink on them. So such tests run in the sandbox only.
#pragma once

#include <json/value.h>

#include <cstddef>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace fake_hos {

// One call of the program under test. A null text is recorded as "(null)"; places for results
// (buffers, handles, hashes, lists) are not recorded, their sizes are.
struct Call {
  std::string name;
  std::vector<std::string> args;

  // "KLIBCFileGetKeyValue(/etc/kivoinfo.conf, zomi_disable_report, 2048, 0)"
  [[nodiscard]] std::string ToText() const;
  bool operator==(const Call&) const = default;
};

// Ordered pairs: the content of a hash, in the hash's order.
using Pairs = std::vector<std::pair<std::string, std::string>>;

struct ErrorTriple {
  int code = 0;
  std::string file;
  int line = 0;
};

struct Notification {
  std::string tag;
  Pairs params;
  bool operator==(const Notification&) const = default;
};

struct LogEvent {
  int type = 0;
  int level = 0;
  unsigned int event = 0;
  std::vector<std::string> texts;
  bool operator==(const LogEvent&) const = default;
};

struct PluginRun {
  std::string plugin;
  std::string action;
  unsigned int number = 0;
  bool operator==(const PluginRun&) const = default;
};

struct ExecRun {
  std::string path;
  int flags = 0;
  std::vector<std::string> args;
  bool operator==(const ExecRun&) const = default;
};

// What the device is; tests set the fields as they need them.
struct Device {
  std::optional<std::string> serial_number = "FAKE123456789";
  std::optional<std::string> mac_address = "02:11:22:33:44:55";
  std::optional<std::string> user_agent_tail = "HOS/7.2.1 (NX220)";  // follows the product word
  std::optional<std::string> zone = "Europe/Berlin";
  std::map<std::string, Pairs> zone_table = {
      {"Europe/Berlin", {{"nameInTZDB", "Europe/Berlin"}, {"utcOffset", "3600"}}}};
  std::map<int, int> scemd_states;  // an item that is not here has state 0
};

// The cloud service as the device's library sees it.
struct CloudService {
  std::optional<std::string> stored_api_key;
  std::optional<std::string> next_api_key = "fake-api-key";  // none: registering fails
  int error_code = 0;                                        // the library's last error
  int failure_code = 1;                                      // what a failing call sets it to
};

// The S256 pair that the generator gives.
struct PkcePair {
  std::string challenge = "E9Melhoa2OwvFrEMTJguCHaoeK1t8URWbuGJSstw-cM";
  std::string verifier = "dBjftJeZ4CVP-mB92K27uhbUJU1p1r_wW1gFWFOEjXk";
};

class Platform {
 public:
  // Back to a fresh platform: facts, records, scripts, counters and the error triple. Real files
  // stay. Objects that are still alive are forgotten, not freed.
  void Reset();

  // Facts and state. Set before the flow, looked at after it.
  Device device;
  CloudService cloud;
  PkcePair pkce;
  std::map<std::string, Json::Value> crond_lists;  // by name, as given to Save
  std::vector<std::string> schedule_entries;       // commands of the older schedule
  int exec_status = 0;                             // what every KLIBCExecl gives
  std::function<int(const ExecRun&)> exec;         // when set, does the work of KLIBCExecl
  int busy_lock_tries = 0;                         // so many tries find the lock held elsewhere
  std::function<void()> locked;                    // when set, runs when a lock has been taken

  // What the program did, in order. `plugin_runs` also holds the runs that were made to fail.
  std::vector<PluginRun> plugin_runs;
  std::vector<ExecRun> exec_runs;
  std::vector<Notification> notifications;
  std::vector<LogEvent> events;

  // Every call since Reset. `calls` leaves out the containers (KLIBCSz...), the text helpers
  // (KLIBCStr...) and the error accessors.
  [[nodiscard]] const std::vector<Call>& all_calls() const { return all_calls_; }
  [[nodiscard]] std::vector<Call> calls() const;
  [[nodiscard]] std::vector<Call> calls(std::string_view name) const;
  [[nodiscard]] std::size_t call_count(std::string_view name) const;
  void ClearCalls() { all_calls_.clear(); }

  // Scripted failures: the call does nothing and reports failure as its header says. Counting
  // starts anew at each of these (1 is the next call). Class members go by "ConfigManager::Save"
  // and "ConfigManager::Remove". A getter of a container fails by giving null; unlocking and
  // closing still release what they hold.
  void FailNext(std::string_view name) { FailCall(name, 1); }
  void FailCall(std::string_view name, int nth);
  void FailAlways(std::string_view name);
  void StopFailing();

  // Fails the `n`th call from now of whatever name. Calls that cannot report failure (frees, error
  // accessors) and the getters of the containers, for which null is an answer, do not count. For
  // loops: raise n until `nth_call_fired` stays false after the flow.
  void FailNthCallOverall(int n);
  [[nodiscard]] bool nth_call_fired() const { return nth_fired_; }
  [[nodiscard]] const Call& nth_call() const { return nth_call_; }

  // The triple that every later failure sets.
  void SetFailureTriple(ErrorTriple triple) { failure_triple_ = std::move(triple); }
  [[nodiscard]] const ErrorTriple& last_error() const { return last_error_; }

  // Runs `hook` at each later call of `name`, after it was recorded and before it acts or fails.
  void OnCall(std::string_view name, std::function<void(const Call&)> hook);

  // Hashes, lists, plug-in handles and file locks that were made and not yet given back. Blocks of
  // KLIBCStrCat belong to malloc and are not counted; a leak checker sees them.
  [[nodiscard]] int live_objects() const { return live_objects_; }

  // For the calls themselves.
  enum class Counting { kCounted, kNotCounted };
  [[nodiscard]] bool Enter(std::string_view name, std::vector<std::string> args,
                           Counting counting = Counting::kCounted);
  void Note(std::string_view name, std::vector<std::string> args);  // a call that never fails
  void SetError() { last_error_ = failure_triple_; }
  void ObjectMade() { ++live_objects_; }
  void ObjectGone() { --live_objects_; }

 private:
  struct Script {
    int calls = 0;
    std::set<int> failing;
    bool always = false;
    std::vector<std::function<void(const Call&)>> hooks;
  };

  Script& ScriptOf(std::string_view name);
  [[nodiscard]] bool NthCallFailsNow(const Call& call, Counting counting);

  std::vector<Call> all_calls_;
  std::map<std::string, Script, std::less<>> scripts_;
  ErrorTriple failure_triple_ = {0x0900, "fake_hos", 1};
  ErrorTriple last_error_;
  int calls_until_failure_ = 0;
  bool nth_fired_ = false;
  Call nth_call_;
  int live_objects_ = 0;
};

// The one platform of the process.
Platform& platform();

}  // namespace fake_hos
