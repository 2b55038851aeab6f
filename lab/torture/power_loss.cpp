// Cuts the power at every moment of a flow, keeps what was made durable, drops the rest, and checks
// that each file of the device's state is then the old or the new one.
//
// A case is "FLOW STATE": what could not be promised more than at that moment (disk.h); or
// "FLOW STATE again", where the flow is run again from there.
#include <algorithm>
#include <sstream>

#include "lab/torture/disk.h"
#include "lab/torture/fault_kind.h"

namespace torture {
namespace {

constexpr char kTrace[] = "/var/tmp/torture/trace.all";
constexpr char kWholeTexts[] = "16777216";

class PowerCuts : public FaultKind {
 public:
  explicit PowerCuts(Report& report)
      : FaultKind(report, {lab::Way::kItself}, std::chrono::seconds(60)) {}

  void Survey(const std::string& flow) override;
  std::vector<std::string> Cases(const std::string& flow, const Selection& selection) override;
  void RunCase(const std::string& name) override;

 private:
  lab::ProcessResult RunSurveyed() override;
  [[nodiscard]] const DiskState* Find(const std::string& state) const;
  void CheckKey();

  Files start_;
  PowerLoss loss_;
  std::string old_key_;
  std::string new_key_;
};

lab::ProcessResult PowerCuts::RunSurveyed() {
  start_ = ReadFiles();
  old_key_ = test_files::Read(lab::kApiKeyFile);
  return RunFlow({"strace", "-f", "-y", "-s", kWholeTexts, "-o", kTrace, "-e",
                  std::string("trace=") + kFileCalls});
}

void PowerCuts::Survey(const std::string& flow) {
  FaultKind::Survey(flow);
  new_key_ = test_files::Read(lab::kApiKeyFile);
  std::set<std::string> folders(kStateFolders.begin(), kStateFolders.end());
  folders.insert("/etc");
  loss_ = CutPower(ReadTrace(kTrace), start_, folders);
  if (loss_.at_the_end.empty()) return;
  std::string lost = "at the end";
  for (const std::string& file : loss_.at_the_end) lost += ", " + file;
  report().Finding(lost);
}

// All states; some of them once more, to run the flow again from there.
std::vector<std::string> PowerCuts::Cases(const std::string& flow, const Selection& selection) {
  std::vector<std::string> cases;
  std::vector<std::string> again;
  for (const DiskState& state : loss_.states) {
    const std::string name = flow + " " + state.name;
    if (!selection.IsShared(name)) continue;
    cases.push_back(name);
    if (&state != &loss_.states.front() && selection.IsSampled(name)) {
      again.push_back(name + " again");
    }
  }
  cases.insert(cases.end(), again.begin(), again.end());
  return cases;
}

const DiskState* PowerCuts::Find(const std::string& state) const {
  const auto found = std::find_if(loss_.states.begin(), loss_.states.end(),
                                  [&state](const auto& one) { return one.name == state; });
  return found == loss_.states.end() ? nullptr : &*found;
}

void PowerCuts::RunCase(const std::string& name) {
  std::istringstream words(name);
  std::string flow;
  std::string state_name;
  std::string again;
  words >> flow >> state_name >> again;
  if (!again.empty()) {  // from a server that has seen the whole flow
    Survey(flow);
    report().BeginCase(name);
  }
  const DiskState* state = Find(state_name);
  if (state == nullptr) {
    report().Add(Count::kNotReached);  // the network answered in other pieces this time
    return;
  }
  SetPlace(state->at);
  PutFiles(state->files);
  checks().CheckState({});
  CheckKey();
  report().Add(again.empty() ? Count::kFaults : Count::kRunsAgain);
  if (!again.empty()) CheckAgain({});
}

void PowerCuts::CheckKey() {
  const std::string key = test_files::Read(lab::kApiKeyFile);
  if (!test_files::Exists(lab::kApiKeyFile)) {
    if (!old_key_.empty()) report().Finding("the API key is gone");
  } else if (key.empty() || (key != old_key_ && key != new_key_)) {
    report().Finding("the API key is neither old nor new: '" + key + "'");
  }
}

}  // namespace

std::unique_ptr<Kind> MakePowerLoss(Report& report) { return std::make_unique<PowerCuts>(report); }

}  // namespace torture
