// Disturbs the programs and checks the device after each fault. script/torture starts it, inside
// the lab, once for each share of the cases.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

#include "lab/torture/interleavings.h"
#include "lab/torture/selection.h"

namespace {

constexpr char kUsage[] =
    "Usage: lab-torture interleavings [--all | --every K] [--flow FLOW]... [--share I/N]\n"
    "                                 [--counts PREFIX]\n"
    "       lab-torture interleavings --only CASE\n"
    "\n"
    "The counts of each flow go to PREFIX.FLOW.\n";

constexpr unsigned long kSampleStep = 3;
constexpr int kWrongUsage = 2;

struct Options {
  torture::Selection selection{.every = kSampleStep};
  std::string counts;  // empty: nowhere
  std::optional<std::string> only;
};

// Nothing when the words make no sense.
std::optional<Options> ParseOptions(const std::vector<std::string>& words) {
  Options options;
  if (words.empty() || words[0] != "interleavings") return std::nullopt;
  for (std::size_t index = 1; index < words.size(); ++index) {
    const std::string& option = words[index];
    if (option == "--all" || option == "--each") {
      options.selection.every = 1;
      continue;
    }
    if (++index == words.size()) return std::nullopt;
    const std::string& value = words[index];
    if (option == "--every") {
      options.selection.every = std::strtoul(value.c_str(), nullptr, 10);
    } else if (option == "--flow") {
      options.selection.flows.push_back(value);
    } else if (option == "--share") {
      options.selection.share = std::strtoul(value.c_str(), nullptr, 10);
      options.selection.shares =
          std::strtoul(value.substr(value.find('/') + 1).c_str(), nullptr, 10);
    } else if (option == "--counts") {
      options.counts = value;
    } else if (option == "--only") {
      options.only = value;
    } else {
      return std::nullopt;
    }
  }
  if (options.selection.every == 0 || options.selection.shares == 0) return std::nullopt;
  return options;
}

void WriteCounts(const std::string& path, const torture::InterleavingCounts& counts,
                 std::chrono::steady_clock::duration time) {
  std::ofstream(path) << "interleavings=" << counts.interleavings << "\nwaits=" << counts.waits
                      << "\nfindings=" << counts.findings << "\nseconds="
                      << std::chrono::duration_cast<std::chrono::seconds>(time).count() << "\n";
}

std::string FlowOf(const std::string& name) { return name.substr(0, name.find(' ')); }

// The cases of one flow stand together.
int RunSelected(const Options& options) {
  std::vector<std::string> names = torture::InterleavingCases();
  int findings = 0;
  for (auto name = names.begin(); name != names.end();) {
    const std::string flow = FlowOf(*name);
    const auto start = std::chrono::steady_clock::now();
    torture::InterleavingCounts counts;
    for (; name != names.end() && FlowOf(*name) == flow; ++name) {
      if (options.selection.Includes(*name)) torture::RunInterleaving(*name, counts);
      std::fflush(stdout);
    }
    findings += counts.findings;
    if (!options.counts.empty()) {
      WriteCounts(options.counts + "." + flow, counts, std::chrono::steady_clock::now() - start);
    }
  }
  return findings;
}

int RunOne(const std::string& name) {
  torture::InterleavingCounts counts;
  torture::RunInterleaving(name, counts);
  return counts.findings;
}

}  // namespace

int main(int argc, char** argv) {
  const auto options = ParseOptions({argv + 1, argv + argc});
  if (!options) {
    std::fputs(kUsage, stderr);
    return kWrongUsage;
  }
  try {
    return (options->only ? RunOne(*options->only) : RunSelected(*options)) == 0 ? 0 : 1;
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "lab-torture: %s\n", failure.what());
    return 1;
  }
}
