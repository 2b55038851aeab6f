// Disturbs the programs and checks the device after each fault. script/torture starts it; it starts
// itself inside the labs, once for each share of the cases.
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "lab/torture/kind.h"
#include "lab/torture/labs.h"
#include "lab/torture/options.h"

namespace {

using torture::Kind;
using torture::Options;
using torture::Report;

constexpr int kWrongUsage = 2;

void RunFlow(Kind& kind, const std::string& flow, const Options& options, Report& report) {
  report.BeginFlow();
  kind.Survey(flow);
  const std::vector<std::string> cases = kind.Cases(flow, options.selection);
  std::printf("%-15s %zu cases\n", flow.c_str(), cases.size());
  std::fflush(stdout);
  for (const std::string& name : cases) {
    report.BeginCase(name);
    kind.RunCase(name);
  }
  if (!options.counts.empty()) report.WriteCounts(options.counts + "." + flow);
}

void RunOne(Kind& kind, const std::string& name, Report& report) {
  report.BeginFlow();
  kind.Survey(name.substr(0, name.find(' ')));
  report.BeginCase(name);
  kind.RunCase(name);
  kind.ShowLast();
}

bool RunInLab(Options options) {
  const torture::KindOfTorture& what = *torture::FindKind(options.kinds.front());
  options.selection.every = options.every == 0 ? what.sample_step : options.every;
  Report report(what.counts);
  const std::unique_ptr<Kind> kind = what.make(report);
  if (options.only) {
    RunOne(*kind, *options.only, report);
    return report.findings() == 0;
  }
  for (const std::string& flow : kind->Flows()) {
    if (options.selection.TakesFlow(flow)) RunFlow(*kind, flow, options, report);
  }
  return report.findings() == 0;
}

bool IsInLab() { return std::getenv("LAB_INSIDE") != nullptr; }

}  // namespace

int main(int argc, char** argv) {
  const auto options = torture::ParseOptions({argv + 1, argv + argc});
  if (!options || (IsInLab() ? options->kinds.size() != 1 : options->build.empty())) {
    std::fputs("lab-torture: see script/torture --help\n", stderr);
    return kWrongUsage;
  }
  try {
    const bool good = IsInLab()
                          ? RunInLab(*options)
                          : RunLabs(*options, std::filesystem::read_symlink("/proc/self/exe"));
    return good ? EXIT_SUCCESS : EXIT_FAILURE;
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "lab-torture: %s\n", failure.what());
    return EXIT_FAILURE;
  }
}
