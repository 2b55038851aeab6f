#include "lab/torture/report.h"

#include <cstdio>
#include <fstream>

namespace torture {
namespace {

const char* NameOf(Count count) {
  switch (count) {
    case Count::kFaults: return "faults";
    case Count::kKills: return "kills";
    case Count::kRescues: return "rescues";
    case Count::kOutOfMemory: return "out_of_memory";
    case Count::kRunsAgain: return "runs_again";
    case Count::kInterleavings: return "interleavings";
    case Count::kWaits: return "waits";
    case Count::kNotReached: return "not_reached";
    case Count::kKnownLimits: return "known_limits";
    case Count::kFindings: return "findings";
  }
  return "?";
}

}  // namespace

void Report::BeginFlow() {
  numbers_.clear();
  start_ = std::chrono::steady_clock::now();
}

void Report::BeginCase(const std::string& name) {
  case_ = name;
  place_ = "at: (unknown)";
  findings_before_ = findings_;
}

void Report::Say(const char* what, const std::string& text) const {
  std::printf("%-8s %s\n         %s\n         %s\n", what, case_.c_str(), text.c_str(),
              place_.c_str());
  std::fflush(stdout);
}

void Report::Finding(const std::string& text) {
  ++findings_;
  Add(Count::kFindings);
  Say("FINDING", text);
}

void Report::KnownLimit(const std::string& text) {
  Add(Count::kKnownLimits);
  Say("KNOWN", text);
}

void Report::WriteCounts(const std::string& path) const {
  std::ofstream file(path);
  for (const Count count : counts_) {
    const auto number = numbers_.find(count);
    file << NameOf(count) << '=' << (number == numbers_.end() ? 0 : number->second) << '\n';
  }
  const auto time = std::chrono::steady_clock::now() - start_;
  file << "seconds=" << std::chrono::duration_cast<std::chrono::seconds>(time).count() << '\n';
}

}  // namespace torture
