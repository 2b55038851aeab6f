// Measures whole processes side by side.
//
//   bench-processes ROUNDS AT_ONCE [-- NAME PREPARE COMMAND [ARG...]]...
//
// In each of ROUNDS rounds every COMMAND runs in turn, AT_ONCE copies together, so that whatever
// else the machine does falls on all of them alike. PREPARE is a shell command that runs before
// each, unmeasured ("" for none). Prints for each NAME a line of medians:
//
//   NAME  microseconds from start to last end  processor time per process (user and system, of its
//   children too)  peak memory in KiB  microseconds that the slowest took
//
//   bench-processes --peak COMMAND [ARG...]
//
// Prints the peak memory of COMMAND itself in KiB, without its children's.
//
// Linked statically: the peak memory of a child counts what it was before it became its program.
#include <fcntl.h>
#include <spawn.h>
#include <sys/ptrace.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <map>
#include <string>
#include <vector>

namespace {

struct Case {
  std::string name;
  std::string prepare;
  std::vector<char*> command;  // ends with a null pointer
};

// A column of figures for each, one figure a round.
struct Samples {
  std::vector<double> wall;
  std::vector<double> processor;
  std::vector<double> memory;
  std::vector<double> slowest;
};

[[noreturn]] void Die(const std::string& message) {
  std::fprintf(stderr, "bench-processes: %s\n", message.c_str());
  std::exit(1);
}

double Now() {
  timespec now = {};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<double>(now.tv_sec) * 1e6 + static_cast<double>(now.tv_nsec) / 1e3;
}

double Microseconds(const timeval& time) {
  return static_cast<double>(time.tv_sec) * 1e6 + static_cast<double>(time.tv_usec);
}

// File actions that give a process /dev/null for its standard input and output.
class Silence {
 public:
  Silence() {
    posix_spawn_file_actions_init(&actions_);
    posix_spawn_file_actions_addopen(&actions_, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions_, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  }
  Silence(const Silence&) = delete;
  Silence& operator=(const Silence&) = delete;
  ~Silence() { posix_spawn_file_actions_destroy(&actions_); }

  const posix_spawn_file_actions_t* get() const { return &actions_; }

 private:
  posix_spawn_file_actions_t actions_{};
};

pid_t Start(char* const* command) {
  static const Silence silence;
  pid_t pid = -1;
  const int error = posix_spawnp(&pid, command[0], silence.get(), nullptr, command, environ);
  if (error != 0) Die(std::string("cannot start ") + command[0] + ": " + std::strerror(error));
  return pid;
}

// Waits for any child; a process that fails measures nothing.
pid_t Reap(const std::string& name, rusage& usage) {
  int status = 0;
  const pid_t pid = wait4(-1, &status, 0, &usage);
  if (pid < 0 || status != 0) Die(name + " failed, wait status " + std::to_string(status));
  return pid;
}

void Prepare(const Case& measured) {
  if (measured.prepare.empty()) return;
  std::string shell = "sh";
  std::string option = "-c";
  std::string text = measured.prepare;
  const std::array<char*, 4> command = {shell.data(), option.data(), text.data(), nullptr};
  rusage usage = {};
  Start(command.data());
  Reap("preparing " + measured.name, usage);
}

void Run(const Case& measured, long at_once, Samples& samples) {
  std::map<pid_t, double> starts;
  double processor = 0;
  double memory = 0;
  double slowest = 0;
  const double start = Now();
  for (long i = 0; i < at_once; ++i) {
    const double begin = Now();
    starts[Start(measured.command.data())] = begin;
  }
  for (long i = 0; i < at_once; ++i) {
    rusage usage = {};
    const pid_t pid = Reap(measured.name, usage);
    slowest = std::max(slowest, Now() - starts[pid]);
    processor += Microseconds(usage.ru_utime) + Microseconds(usage.ru_stime);
    memory = std::max(memory, static_cast<double>(usage.ru_maxrss));
  }
  samples.wall.push_back(Now() - start);
  samples.processor.push_back(processor / static_cast<double>(at_once));
  samples.memory.push_back(memory);
  samples.slowest.push_back(slowest);
}

// The kernel tells of a process that has ended only the largest peak of it and its children; its
// own can be read until then.
long PeakOf(pid_t pid) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  for (std::string word; status >> word;) {
    if (word == "VmHWM:") {
      long peak = 0;
      status >> peak;
      return peak;
    }
  }
  Die("no peak memory in /proc");
}

// Runs `command` up to its end, and looks at it there.
long OwnPeak(char* const* command) {
  const pid_t pid = fork();
  if (pid == 0) {
    ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
    execvp(command[0], command);
    _exit(127);
  }
  long peak = 0;
  int status = 0;
  waitpid(pid, &status, 0);
  ptrace(PTRACE_SETOPTIONS, pid, nullptr, PTRACE_O_TRACEEXIT);
  while (!WIFEXITED(status) && !WIFSIGNALED(status)) {
    const bool ends = status >> 8 == (SIGTRAP | (PTRACE_EVENT_EXIT << 8));
    if (ends) peak = PeakOf(pid);
    const int stop = WSTOPSIG(status);
    ptrace(PTRACE_CONT, pid, nullptr, stop == SIGTRAP ? 0 : stop);
    waitpid(pid, &status, 0);
  }
  if (status != 0) Die(std::string(command[0]) + " failed, wait status " + std::to_string(status));
  return peak;
}

double Median(std::vector<double> values) {
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

// The words up to the next "--", which begin at `word`; `word` is left behind them.
Case ReadCase(char** words, int count, int& word) {
  Case measured;
  const int first = word;
  while (word < count && std::strcmp(words[word], "--") != 0) ++word;
  if (word - first < 3) Die("a case is NAME PREPARE COMMAND [ARG...]");
  measured.name = words[first];
  measured.prepare = words[first + 1];
  measured.command.assign(words + first + 2, words + word);
  measured.command.push_back(nullptr);
  return measured;
}

std::vector<Case> ReadCases(char** words, int count) {
  std::vector<Case> cases;
  for (int word = 3; word < count;) {
    ++word;  // past "--"
    cases.push_back(ReadCase(words, count, word));
  }
  return cases;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc > 2 && std::strcmp(argv[1], "--peak") == 0) {
    std::printf("%ld\n", OwnPeak(argv + 2));
    return 0;
  }
  const long rounds = argc > 1 ? std::strtol(argv[1], nullptr, 10) : 0;
  const long at_once = argc > 2 ? std::strtol(argv[2], nullptr, 10) : 0;
  const std::vector<Case> cases = ReadCases(argv, argc);
  if (rounds < 1 || at_once < 1 || cases.empty()) {
    Die("usage: bench-processes ROUNDS AT_ONCE [-- NAME PREPARE COMMAND [ARG...]]...");
  }
  std::vector<Samples> samples(cases.size());
  for (long round = 0; round < rounds; ++round) {
    for (std::size_t i = 0; i < cases.size(); ++i) {
      Prepare(cases[i]);
      Run(cases[i], at_once, samples[i]);
    }
  }
  for (std::size_t i = 0; i < cases.size(); ++i) {
    std::printf("%s\t%.0f\t%.0f\t%.0f\t%.0f\n", cases[i].name.c_str(), Median(samples[i].wall),
                Median(samples[i].processor), Median(samples[i].memory),
                Median(samples[i].slowest));
  }
}
