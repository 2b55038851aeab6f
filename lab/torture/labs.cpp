#include "lab/torture/labs.h"

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <system_error>
#include <utility>

namespace torture {
namespace {

namespace fs = std::filesystem;

using Counts = std::vector<std::pair<std::string, long>>;

// Shares run side by side, flows one after another.
enum class Of { kShares, kFlows };

[[noreturn]] void Throw(int error, const char* what) {
  throw std::system_error(error, std::generic_category(), what);
}

// Goes with all that is in it.
class WorkFolder {
 public:
  WorkFolder() : path_(fs::absolute("build/torture/XXXXXX")) {
    fs::create_directories(fs::path(path_).parent_path());
    if (mkdtemp(path_.data()) == nullptr) Throw(errno, "mkdtemp");
  }
  WorkFolder(const WorkFolder&) = delete;
  WorkFolder& operator=(const WorkFolder&) = delete;
  ~WorkFolder() {
    std::error_code ignored;
    fs::remove_all(path_, ignored);
  }
  [[nodiscard]] const std::string& path() const { return path_; }

 private:
  std::string path_;
};

// --- Counts. ---

Counts ReadCounts(const fs::path& path) {
  std::ifstream file(path);
  Counts counts;
  for (std::string line; std::getline(file, line);) {
    const std::size_t equals = line.find('=');
    if (equals == std::string::npos) continue;
    counts.emplace_back(line.substr(0, equals), std::strtol(&line[equals + 1], nullptr, 10));
  }
  return counts;
}

void Add(const Counts& counts, Of what, Counts& sum) {
  for (const auto& [name, number] : counts) {
    const auto known = std::find_if(sum.begin(), sum.end(), [&wanted = name](const auto& entry) {
      return entry.first == wanted;
    });
    if (known == sum.end()) {
      sum.emplace_back(name, number);
    } else if (what == Of::kShares && name == "seconds") {
      known->second = std::max(known->second, number);
    } else {
      known->second += number;
    }
  }
}

void WriteCounts(const fs::path& path, const Counts& counts) {
  std::ofstream file(path);
  for (const auto& [name, number] : counts) file << name << '=' << number << '\n';
}

// Those of the flows that all shares have ended, from files "SHARE.FLOW".
std::map<std::string, Counts> SumUpShares(const fs::path& parts, unsigned shares) {
  std::map<std::string, Counts> sums;
  std::map<std::string, unsigned> ended;
  for (const auto& entry : fs::directory_iterator(parts)) {
    const std::string flow = entry.path().extension().string().substr(1);
    Add(ReadCounts(entry.path()), Of::kShares, sums[flow]);
    ++ended[flow];
  }
  std::erase_if(sums, [&](const auto& sum) { return ended[sum.first] != shares; });
  return sums;
}

void Print(const std::string& kind, const std::map<std::string, Counts>& flows) {
  Counts sum;
  for (const auto& [flow, counts] : flows) Add(counts, Of::kFlows, sum);
  std::string line = kind + ":";
  for (const auto& [name, number] : sum) {
    line += (line.ends_with(':') ? " " : ", ") + name + "=" + std::to_string(number);
  }
  std::puts(line.c_str());
}

// A flow's counts replace those of its last run.
void Keep(const std::string& name, const std::map<std::string, Counts>& flows) {
  const fs::path folder = fs::path("build/reliability") / name;
  fs::create_directories(folder);
  for (const auto& [flow, counts] : flows) WriteCounts(folder / flow, counts);
  Counts sum;
  for (const auto& entry : fs::directory_iterator(folder)) {
    Add(ReadCounts(entry.path()), Of::kFlows, sum);
  }
  WriteCounts(folder.string() + ".counts", sum);
}

// --- Labs. ---

pid_t StartLab(std::vector<std::string> words) {
  std::vector<char*> argv;
  argv.reserve(words.size() + 1);
  for (std::string& word : words) argv.push_back(word.data());
  argv.push_back(nullptr);
  pid_t pid = 0;
  const int error = posix_spawn(&pid, argv[0], nullptr, nullptr, argv.data(), environ);
  if (error != 0) Throw(error, argv[0]);
  return pid;
}

// Leaves the counts of each share and flow in PARTS/SHARE.FLOW. False when a lab had findings.
bool RunShares(const Options& options, const std::string& program, const std::string& kind,
               const std::string& parts) {
  fs::create_directories(parts);
  std::vector<pid_t> labs;
  for (unsigned share = 0; share < options.jobs; ++share) {
    const std::string number = std::to_string(share);
    const std::string counts = fs::path(parts) / number;
    std::vector<std::string> words = {"lab/run", "--install", options.build, "--out",
                                      parts,     "--",        program,       kind};
    words.insert(words.end(), options.for_the_lab.begin(), options.for_the_lab.end());
    words.insert(words.end(),
                 {"--share", number + "/" + std::to_string(options.jobs), "--counts", counts});
    labs.push_back(StartLab(std::move(words)));
  }
  bool good = true;
  for (const pid_t lab : labs) {
    int status = 0;
    good = waitpid(lab, &status, 0) == lab && status == 0 && good;
  }
  return good;
}

}  // namespace

bool RunLabs(const Options& options, const std::string& program) {
  const WorkFolder work;
  bool good = true;
  std::vector<std::string> kinds = options.kinds;
  if (kinds.empty()) kinds = {"interleavings", "power_loss", "system_calls", "allocations"};
  for (const std::string& kind : kinds) {
    const std::string parts = work.path() + "/" + kind;
    good = RunShares(options, program, kind, parts) && good;
    if (options.only) continue;
    const auto flows = SumUpShares(parts, options.jobs);
    Print(kind, flows);
    if (options.is_comparable()) Keep(options.all ? kind : kind + "_sample", flows);
  }
  return good;
}

}  // namespace torture
