// What the kinds of torture share that disturb one flow at a time, and run it again afterwards.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "lab/torture/checks.h"
#include "lab/torture/kind.h"
#include "lab/torture/world.h"

namespace torture {

inline constexpr char kWork[] = "/var/tmp/torture";
inline constexpr char kWorkersFolder[] = "/var/tmp/torture/worker";  // where a worker may write

class FaultKind : public Kind {
 public:
  FaultKind(Report& report, std::vector<lab::Way> ways, std::chrono::seconds limit);

  std::vector<std::string> Flows() override;
  void Survey(const std::string& name) override;
  void ShowLast() override;

 protected:
  // Runs the flow undisturbed, and sees what can be disturbed.
  virtual lab::ProcessResult RunSurveyed() = 0;

  [[nodiscard]] World& world() { return world_; }
  [[nodiscard]] Checks& checks() { return checks_; }
  [[nodiscard]] const Subject& subject() const { return subject_; }
  [[nodiscard]] const lab::Flow& flow() const { return *subject_.flow; }
  [[nodiscard]] std::chrono::seconds limit() const { return limit_; }

  // Where findings say that the fault was.
  void SetPlace(const std::string& place);
  // Makes the device what the flow starts from.
  void Prepare();
  lab::ProcessResult RunFlow(std::vector<std::string> prefix = {});
  // Runs the flow again, and checks that it ends as if nothing had happened.
  void CheckAgain(const Fault& fault);

 private:
  void MakeBase();
  [[nodiscard]] bool RecordOutlivedLogout(const Fault& fault) const;

  std::vector<lab::Way> ways_;
  std::chrono::seconds limit_;
  World world_;
  Checks checks_;
  Subject subject_;
  std::optional<Files> base_;
  bool well_linked_ = false;  // what the case before left is a linked device
  std::string place_;
  lab::ProcessResult last_;
};

}  // namespace torture
