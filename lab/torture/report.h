// What a torture finds and counts.
#pragma once

#include <chrono>
#include <map>
#include <string>
#include <vector>

namespace torture {

enum class Count {
  kFaults,
  kKills,
  kRescues,
  kOutOfMemory,
  kRunsAgain,
  kInterleavings,
  kWaits,
  kNotReached,
  kKnownLimits,
  kFindings,
};

class Report {
 public:
  // `counts` are those that a kind of torture has, in their order.
  explicit Report(std::vector<Count> counts) : counts_(std::move(counts)) {}

  void BeginFlow();
  void BeginCase(const std::string& name);
  // Where the fault of the case was, as its findings say it.
  void SetPlace(std::string place) { place_ = std::move(place); }

  void Add(Count count) { ++numbers_[count]; }
  // Say on standard output what is wrong, and count it.
  void Finding(const std::string& text);
  void KnownLimit(const std::string& text);

  [[nodiscard]] bool case_is_good() const { return findings_ == findings_before_; }
  [[nodiscard]] int findings() const { return findings_; }  // of all flows

  // Writes the flow's counts, lines of NAME=NUMBER, and the seconds that it took.
  void WriteCounts(const std::string& path) const;

 private:
  void Say(const char* what, const std::string& text) const;

  std::vector<Count> counts_;
  std::map<Count, int> numbers_;
  std::chrono::steady_clock::time_point start_;
  std::string case_;
  std::string place_;
  int findings_ = 0;
  int findings_before_ = 0;
};

}  // namespace torture
