// Fails one allocation of the programs after another, and all from there on.
//
// A case is "FLOW N HOW": in FLOW the Nth allocation fails, and when HOW is "rest" every later one.
//
// nodelink may be aborted by an exception that no memory makes a library throw: its main catches
// nothing but the failures of a flow. nodelink-login ends in its own words, but for the formatting
// of a text.
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <future>
#include <map>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <utility>

#include "base/unique_fd.h"
#include "lab/torture/fault_kind.h"

namespace torture {
namespace {

using lab::Way;

constexpr char kReport[] = "/var/tmp/torture/report";
constexpr char kWorkersReport[] = "/var/tmp/torture/worker/report";
constexpr char kLeaks[] = "leaks";
constexpr unsigned long kNoAllocation = 0;
constexpr unsigned long kAllThatFollow = 999'999'999;

// Without memory for a buffer of its connection a request waits for its own time-out of 30 s, three
// times; the rest is for a busy machine.
constexpr std::chrono::seconds kTimeLimit{150};

// Nine of ten allocations are those of the crypto library and of the parser that GnuTLS starts
// with: tables that they fill, thousands of times from the same few places. One for each way there
// will do, and of a sample of those one in so many.
constexpr std::array kAlike = {"libcrypto", "libtasn1"};
constexpr unsigned long kAlikeStep = 5;

// --- What the failing allocator reports (lab/failing_allocator.cpp). ---

struct Frame {
  std::string module;    // "libc.so.6"
  std::string function;  // empty when it has no name
  std::string offset;    // in the module, without a name of a function
};

struct Allocation {
  std::string number;
  std::string module;  // that asked for it
  std::string way;     // there, by the calls on the stack
};

struct AllocationReport {
  std::vector<Allocation> listed;
  bool has_failed = false;
  std::vector<Frame> failed_at;
  int signal = 0;  // that ended the program
  std::vector<Frame> ended_at;
};

// "/lib/libc.so.6(function+0x12) [0x7f12]"
std::optional<Frame> ParseFrame(const std::string& line) {
  const std::size_t open = line.find('(');
  const std::size_t plus = line.find('+', open);
  if (open == std::string::npos || plus == std::string::npos) return std::nullopt;
  const std::string path = line.substr(0, open);
  const std::size_t close = line.find(')', plus);
  Frame frame{path.substr(path.rfind('/') + 1), line.substr(open + 1, plus - open - 1), {}};
  if (frame.function.empty()) frame.offset = line.substr(plus + 1, close - plus - 1);
  const bool is_ours =
      frame.module.starts_with("liblab-alloc") || frame.module.starts_with("liblsan");
  return is_ours ? std::nullopt : std::optional(frame);
}

Allocation ParseAllocation(const std::string& line) {
  std::istringstream words(line);
  Allocation allocation;
  words >> allocation.number >> allocation.module >> allocation.way;
  return allocation;
}

AllocationReport ReadReport() {
  constexpr std::string_view kEnded = "ended by signal ";
  AllocationReport report;
  std::vector<Frame>* stack = nullptr;
  std::istringstream lines(test_files::Read(kReport));
  for (std::string line; std::getline(lines, line);) {
    if (line.starts_with("failed ")) {
      report.has_failed = true;
      stack = &report.failed_at;
    } else if (line.starts_with(kEnded)) {
      if (report.signal == 0) report.signal = std::stoi(line.substr(kEnded.size()));
      stack = &report.ended_at;
    } else if (stack == nullptr) {
      report.listed.push_back(ParseAllocation(line));
    } else if (const auto frame = ParseFrame(line)) {
      stack->push_back(*frame);
    }
  }
  return report;
}

std::string Text(const std::vector<Frame>& stack) {
  constexpr std::size_t kMostFrames = 12;
  constexpr std::size_t kMost = 400;
  std::string text;
  for (std::size_t i = 0; i < std::min(stack.size(), kMostFrames); ++i) {
    text += (i == 0 ? "" : "<") + stack[i].module + " " + stack[i].function;
  }
  return text.substr(0, kMost);
}

// FormatString never throws: without memory for its text the process ends, in either program.
bool IsFormatting(const std::vector<Frame>& stack) {
  std::vector<std::string> words = {"addr2line", "-Cfe", lab::kLoginProgram};
  for (const Frame& frame : stack) {
    if (frame.module == "nodelink-login" && !frame.offset.empty()) words.push_back(frame.offset);
  }
  return words.size() > 3 &&
         lab::RunProcess(words).out.find("nodelink::FormatString") != std::string::npos;
}

// The innermost frame that is not the C library's.
std::optional<Frame> EndingCall(const AllocationReport& report) {
  const auto found =
      std::find_if(report.ended_at.begin(), report.ended_at.end(),
                   [](const Frame& frame) { return !frame.module.starts_with("libc.so"); });
  return found == report.ended_at.end() ? std::nullopt : std::optional(*found);
}

// Known limits: the C library's resolver runs into its own assertions or follows a null pointer;
// libcrypto follows null pointers when its configuration cannot be read; libcurl frees a session
// that it had no memory to remember once more at the end; libseccomp follows null pointers.
bool LibraryFailed(const AllocationReport& report) {
  const auto call = EndingCall(report);
  static const std::regex libraries("^lib(crypto|ssl|curl|gnutls|tasn1|seccomp)");
  return (call && std::regex_search(call->module, libraries)) ||
         std::any_of(report.ended_at.begin(), report.ended_at.end(), [](const Frame& frame) {
           return frame.module.starts_with("libc") &&
                  frame.function.find("getaddrinfo") != std::string::npos;
         });
}

// --- Disturbing a program or its worker. ---

// The allocations that fail.
struct Range {
  unsigned long first = kNoAllocation;
  unsigned long last = kNoAllocation;
};

std::string EnvironmentOf(const char* name) {
  const char* value = std::getenv(name);
  return value == nullptr ? "" : value;
}

std::string Allocator() {
  return std::filesystem::read_symlink("/proc/self/exe").parent_path() / "liblab-allocator.so";
}

std::vector<std::string> Disturbed(const Range& range, const std::string& preloaded,
                                   const char* report) {
  return {"env", "LD_PRELOAD=" + preloaded, std::string("LAB_ALLOCATION_REPORT=") + report,
          "LAB_ALLOCATION_FIRST=" + std::to_string(range.first),
          "LAB_ALLOCATION_LAST=" + std::to_string(range.last)};
}

base::UniqueFd Open(const char* path, int flags) {
  base::UniqueFd fd(open(path, flags | O_CLOEXEC));
  if (!fd) throw std::system_error(errno, std::generic_category(), path);
  return fd;
}

// The worker, which may not write into files once it is confined, reports into a pipe. This reads
// it until nobody can write any more.
class PipeReader {
 public:
  PipeReader()
      : reader_(Open(kWorkersReport, O_RDONLY | O_NONBLOCK)),
        writer_(Open(kWorkersReport, O_WRONLY)),
        text_(std::async(std::launch::async, [this] { return ReadAll(); })) {}

  std::string End() {
    (void)writer_.Close();
    return text_.get();
  }

 private:
  std::string ReadAll() const {
    (void)fcntl(reader_.get(), F_SETFL, 0);  // only opening it had to end without a writer
    std::string text;
    std::array<char, 65'536> bytes{};
    for (ssize_t size = 0; (size = read(reader_.get(), bytes.data(), bytes.size())) > 0;) {
      text.append(bytes.data(), static_cast<std::size_t>(size));
    }
    return text;
  }

  base::UniqueFd reader_;
  base::UniqueFd writer_;
  std::future<std::string> text_;
};

struct Case {
  unsigned long number = 0;
  bool rest = false;
};

Case ParseCase(const std::string& name) {
  std::istringstream words(name);
  std::string flow;
  std::string how;
  Case what;
  if (!(words >> flow >> what.number >> how)) throw std::runtime_error("no such case: " + name);
  what.rest = how == "rest";
  return what;
}

bool IsAlike(const Allocation& allocation) {
  return std::any_of(kAlike.begin(), kAlike.end(),
                     [&](const char* library) { return allocation.module.starts_with(library); });
}

class Allocations : public FaultKind {
 public:
  explicit Allocations(Report& report)
      : FaultKind(report, {Way::kItself, Way::kWorker}, kTimeLimit) {
    if (mkfifo(kWorkersReport, 0600) != 0) throw std::runtime_error("cannot make a pipe");
    std::filesystem::permissions(kWorkersReport, std::filesystem::perms(0622));
  }

  std::vector<std::string> Cases(const std::string& flow, const Selection& selection) override;
  void RunCase(const std::string& name) override;

 private:
  lab::ProcessResult RunSurveyed() override {
    lab::ProcessResult result = RunDisturbed({});
    CheckLeaks();
    return result;
  }
  lab::ProcessResult RunDisturbed(const Range& range);
  lab::ProcessResult RunWithWorkerDisturbed(const Range& range);
  [[nodiscard]] bool EndedOutOfMemory(const lab::ProcessResult& result,
                                      const AllocationReport& allocations) const;
  void CheckOwnEnd(const lab::ProcessResult& result, const AllocationReport& allocations,
                   const Fault& fault);
  void CheckWorkersEnd(const AllocationReport& allocations);
  void CheckLeaks();
};

// In whichever of the flow's programs is disturbed.
lab::ProcessResult Allocations::RunDisturbed(const Range& range) {
  if (subject().way == Way::kWorker) return RunWithWorkerDisturbed(range);
  test_files::Remove(kReport);
  std::vector<std::string> words =
      Disturbed(range, Allocator() + ":" + EnvironmentOf("LAB_LEAK_CHECKER"), kReport);
  words.push_back(
      "LSAN_OPTIONS=leak_check_at_exit=0:abort_on_error=1:handle_segv=0:handle_abort=0:log_path=" +
      std::string(kWork) + "/" + kLeaks);
  return RunFlow(words);
}

// What it leaks is not looked for: that takes calls that it has given up.
lab::ProcessResult Allocations::RunWithWorkerDisturbed(const Range& range) {
  std::string words;
  for (const std::string& word : Disturbed(range, Allocator(), kWorkersReport)) words += word + " ";
  World::StartWorkerBehind(lab::kHttpWorker, words);
  PipeReader reader;
  lab::ProcessResult result = RunFlow();
  World::StartWorkerAlone(lab::kHttpWorker);
  test_files::Write(kReport, reader.End());
  return result;
}

// An allocation is told by the way there and how often it was taken before, so that each share
// chooses alike though it numbers them otherwise.
std::vector<std::string> Allocations::Cases(const std::string& flow, const Selection& selection) {
  std::vector<std::string> cases;
  std::map<std::string, unsigned long> taken;
  for (const Allocation& allocation : ReadReport().listed) {
    const unsigned long before = taken[allocation.way]++;
    const bool alike = IsAlike(allocation);
    if (before > 0 && alike && !selection.each_alike) continue;
    const std::string name = allocation.way + " " + std::to_string(before);
    const unsigned long step = selection.every > 1 && alike ? kAlikeStep : 1;
    if (!selection.IsShared(name) || !selection.IsSampled(name, step)) continue;
    for (const char* how : {"once", "rest"}) {
      cases.push_back(flow + " " + allocation.number + " " + how);
    }
  }
  return cases;
}

void Allocations::RunCase(const std::string& name) {
  const Case what = ParseCase(name);
  const Fault fault{.record_unread = true};  // the reader has failed, when the record is not broken
  Prepare();
  checks().NoteStart(subject());
  const auto result = RunDisturbed({what.number, what.rest ? kAllThatFollow : what.number});
  const AllocationReport allocations = ReadReport();
  SetPlace(Text(allocations.failed_at));
  report().Add(allocations.has_failed ? Count::kFaults : Count::kNotReached);
  CheckOwnEnd(result, allocations, fault);
  if (subject().way == Way::kWorker) CheckWorkersEnd(allocations);
  CheckLeaks();
  checks().CheckLeftovers("after the fault");
  checks().CheckState(fault);
  CheckAgain(fault);
}

bool Allocations::EndedOutOfMemory(const lab::ProcessResult& result,
                                   const AllocationReport& allocations) const {
  return result.signal == SIGABRT && result.err.starts_with("terminate called ") &&
         (!flow().command.is_login() || IsFormatting(allocations.ended_at));
}

void Allocations::CheckOwnEnd(const lab::ProcessResult& result, const AllocationReport& allocations,
                              const Fault& fault) {
  if (EndedOutOfMemory(result, allocations)) {
    report().Add(Count::kOutOfMemory);
  } else {
    checks().CheckEnd(result, fault, limit());
  }
}

// A worker may end as it likes: the program takes that for a failed request. Yet only memory that
// nobody has, or a library of the connection, may be what ends it.
void Allocations::CheckWorkersEnd(const AllocationReport& allocations) {
  if (allocations.signal == 0) return;
  const std::string signal = std::to_string(allocations.signal);
  if (LibraryFailed(allocations)) {
    const Frame call = EndingCall(allocations).value_or(Frame{});
    report().KnownLimit(call.module + " " + call.function + " ended the worker: signal " + signal);
  } else if (allocations.signal == SIGABRT) {
    report().Add(Count::kOutOfMemory);
  } else {
    report().Finding("the worker was ended by signal " + signal);
  }
}

void Allocations::CheckLeaks() {
  for (const std::string& name : test_files::NamesIn(kWork)) {
    if (!name.starts_with(kLeaks)) continue;
    const std::string path = std::string(kWork) + "/" + name;
    const std::string text = test_files::Read(path);
    const std::size_t summary = text.find("SUMMARY");
    report().Finding("leaked: " + text.substr(std::min(summary, text.size()),
                                              text.find('\n', summary) - summary));
    std::fputs(text.c_str(), stdout);
    test_files::Remove(path);
  }
}

}  // namespace

std::unique_ptr<Kind> MakeAllocations(Report& report) {
  return std::make_unique<Allocations>(report);
}

}  // namespace torture
