// The flows of the device's account, one block each in flow.cpp: which command starts it, what the
// device has before, which requests it makes and how it ends. The torture and the tests that go
// through all flows take them from here.
#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "lab/device.h"
#include "lab/process.h"

namespace lab {

// An account of the tests' cloud.
struct Person {
  const char* email;
  const char* password;
  const char* schedule;  // that the server gives the person's devices
};

inline constexpr Person kAnna{kEmail, kPassword, "30 3 * * 6"};
inline constexpr Person kBen{"ben@example.org", "battery staple", "31 4 * * 5"};
inline constexpr Person kCarla{"carla@example.org", "purple monkey", "32 5 * * 4"};

// How a program ends: its exit status, and what it prints, as the shell's extended patterns without
// the last line break.
struct End {
  int status = 0;
  std::string out = {};
  std::string err = {};

  [[nodiscard]] bool Fits(const ProcessResult& result) const;
};

struct Command {
  std::string name;
  std::vector<std::string> words;
  End good;    // it did what it was started for; a login may have lost sight of whom it logged in
  End failed;  // it says that it did not
  const Person* person = nullptr;  // who logs in; nobody but at a login
  bool by_browser = false;
  bool ends_link = false;

  [[nodiscard]] bool is_login() const { return person != nullptr; }
  [[nodiscard]] std::string input() const;  // what it reads from standard input at once
};

Command Query();
Command Report();
Command Update();
Command Logout();
Command PasswordLogin(const Person& person);
Command BrowserLogin(const Person& person);

// Starts the command behind the words of `prefix`; at a login by browser, the person signs in and
// the command is told where the browser was sent to. Throws std::runtime_error when it does not get
// that far.
std::unique_ptr<BackgroundProcess> Start(const Command& command,
                                         const std::vector<std::string>& prefix = {});

// The same up to its end. Whatever it does, it is only given up when the limit has passed.
ProcessResult Run(const Command& command, const std::vector<std::string>& prefix,
                  std::chrono::milliseconds limit);

// What a device has before a flow. All but the first is linked to Anna's account, and has tokens
// unless it says otherwise.
enum class Stored {
  kNothing,
  kLink,
  kOldProfile,   // so that a query asks the server, and finds another one there
  kOldSchedule,  // in the record and in the job, not at the server
  kOldCrontab,   // an old schedule, no job but the older versions' line in the crontab
  kNoTokens,
  kExpiredTokens,
  kRevokedTokens,  // at the server, and expired
};

enum class Transport { kDeviceApi, kOauth, kPlatform };

// How a flow ends whose server cannot be reached: what the texts and the lines logged begin with.
struct Unreached {
  std::string out = {};
  std::string err = {};
  std::vector<std::string> log = {};
};

// A request of a flow, and the locks that the flow holds until it is answered.
struct Request {
  const char* name;
  const char* path;
  std::vector<const char*> locks = {};
  int skip = 0;                             // requests of that path before it
  std::optional<Unreached> unreached = {};  // where its failure is the flow's

  [[nodiscard]] Transport transport() const;
  [[nodiscard]] const char* host() const;
};

// What the server says in the place of its own answer to a flow's first request of the path.
struct Said {
  const char* path;
  int status;
  const char* body;
};

// Who is disturbed where the torture disturbs a flow.
enum class Way {
  kItself,
  kWorker,    // the worker of its requests
  kDeserted,  // the program, whose worker dies as soon as it is to connect
  kForeign,   // the program, started with the effective ids of a service account
};

struct Flow {
  std::string name;
  Command command;
  Stored stored;
  bool link_is_over = false;  // at the server, which has not told the device
  std::vector<Said> said = {};
  std::vector<Request> requests = {};
  std::vector<Way> disturbed = {};
  bool may_log_out = false;   // where it cannot be carried through
  bool saves_tokens = false;  // that a kill loses: then the auth key gets others
};

const std::vector<Flow>& Flows();

// The paths that any of them requests.
std::set<std::string> RequestPaths();

}  // namespace lab
