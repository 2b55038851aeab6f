#pragma once

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "base/unique_fd.h"

namespace lab {

struct ProcessOptions {
  std::string stdin_text = {};
  std::optional<std::vector<std::string>> environment =
      {};                                        // "NAME=value" each; unset: the caller's
  std::chrono::milliseconds time_limit{60'000};  // then it is killed
  std::optional<uid_t> uid = {};  // all three ids; needs root, like gid and the groups below
  std::optional<gid_t> gid =
      {};  // all three ids; no further groups remain when uid or gid is given
  std::string working_folder = {};
};

struct ProcessResult {
  int exit_status = -1;  // -1 when a signal ended it
  int signal = 0;        // 0 when it exited
  bool timed_out = false;
  std::string out;
  std::string err;
};

// Runs a program to its end. argv[0] is looked up in PATH when it holds no slash; no shell is
// involved. Output that the program's own children write after its end is not waited for.
// Throws std::system_error when the program cannot be started (errno as execve and setresuid give
// it). A program that outlives the time limit is killed with its process group: no error,
// `timed_out` is set.
[[nodiscard]] ProcessResult RunProcess(const std::vector<std::string>& argv,
                                       const ProcessOptions& options = {});

// A program that runs beside the caller. Its output is read all the time, so it never blocks on a
// full pipe; what goes beyond 64 MiB is dropped. It leads its own process group.
class BackgroundProcess {
 public:
  // Starts the program, as RunProcess does. Standard input stays open after `stdin_text`, which
  // must fit into a socket's buffer (64 KiB always do). `time_limit` bounds each single wait.
  explicit BackgroundProcess(const std::vector<std::string>& argv,
                             const ProcessOptions& options = {});
  // Ends it as Terminate() does.
  ~BackgroundProcess();

  BackgroundProcess(const BackgroundProcess&) = delete;
  BackgroundProcess& operator=(const BackgroundProcess&) = delete;

  [[nodiscard]] pid_t pid() const { return pid_; }

  // The next whole line of standard output, without its line break, that begins with `prefix`;
  // lines before it are passed over. Throws std::runtime_error, with what was printed so far, when
  // the program ends or the time limit, or `limit` in its place, passes without one.
  std::string WaitForLine(std::string_view prefix = {},
                          std::optional<std::chrono::milliseconds> limit = {});

  // To its standard input. Throws std::system_error when it no longer reads.
  void Write(std::string_view text);
  void CloseStdin();

  // Sends a signal; nothing happens when the program has ended already.
  void Signal(int signal);

  // Waits for its end; kills it when the time limit passes (`timed_out`).
  ProcessResult Wait();
  // SIGTERM, and SIGKILL when it has not ended 5 s later (`timed_out`).
  ProcessResult Terminate();

 private:
  friend ProcessResult RunProcess(const std::vector<std::string>& argv,
                                  const ProcessOptions& options);

  enum class Stdin { kTextThenEnd, kOpen };

  BackgroundProcess(const std::vector<std::string>& argv, const ProcessOptions& options,
                    Stdin stdin_kind);

  void Start(const std::vector<std::string>& argv, const ProcessOptions& options,
             base::UniqueFd child_stdin);
  void ReadToTheEnd();
  bool ReadSome(const base::UniqueFd& pipe, std::string& output);
  void Reap();
  std::optional<std::string> NextLine(std::string_view prefix);
  ProcessResult WaitOrKill(std::chrono::milliseconds limit);

  const std::chrono::milliseconds time_limit_;
  const pid_t owner_;
  base::UniqueFd stdin_;
  base::UniqueFd stdout_;
  base::UniqueFd stderr_;
  pid_t pid_ = -1;
  base::UniqueFd pidfd_;

  std::mutex mutex_;
  std::condition_variable changed_;
  ProcessResult result_;
  std::size_t next_line_ = 0;  // where in result_.out WaitForLine goes on
  bool ended_ = false;
  std::thread thread_;
};

}  // namespace lab
