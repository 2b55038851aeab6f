// One kind of torture: a way to disturb the flows of the device's account.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "lab/torture/report.h"
#include "lab/torture/selection.h"

namespace torture {

class Kind {
 public:
  explicit Kind(Report& report) : report_(report) {}
  Kind(const Kind&) = delete;
  Kind& operator=(const Kind&) = delete;
  virtual ~Kind() = default;

  // All that follow throw std::runtime_error when the lab does not work.

  // The flows that are disturbed, in their order.
  [[nodiscard]] virtual std::vector<std::string> Flows() = 0;
  // Runs the flow undisturbed, for what its cases are. Before its cases.
  virtual void Survey(const std::string& /*flow*/) {}
  // The names of the selected cases; the first word of each is the flow.
  [[nodiscard]] virtual std::vector<std::string> Cases(const std::string& flow,
                                                       const Selection& selection) = 0;
  virtual void RunCase(const std::string& name) = 0;
  // Says on standard output how the last case went.
  virtual void ShowLast() {}

 protected:
  [[nodiscard]] Report& report() { return report_; }

 private:
  Report& report_;
};

// What is known of a kind before there is a lab.
struct KindOfTorture {
  const char* name;
  unsigned long sample_step;  // a sample has one case in so many
  std::vector<Count> counts;
  std::unique_ptr<Kind> (*make)(Report& report);
};

// Nothing when there is no such one.
const KindOfTorture* FindKind(const std::string& name);

std::unique_ptr<Kind> MakeSystemCalls(Report& report);
std::unique_ptr<Kind> MakeAllocations(Report& report);
std::unique_ptr<Kind> MakePowerLoss(Report& report);
std::unique_ptr<Kind> MakeInterleavings(Report& report);

}  // namespace torture
