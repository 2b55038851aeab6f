// What must hold of a device after a flow was disturbed, and after the flow was run again.
#pragma once

#include <chrono>
#include <string>

#include "lab/flow.h"
#include "lab/torture/device_state.h"
#include "lab/torture/report.h"

namespace torture {

// One of the flows, in one of the ways in which it is disturbed.
struct Subject {
  const lab::Flow* flow = nullptr;
  lab::Way way = lab::Way::kItself;

  // "worker_query"
  [[nodiscard]] std::string Name() const;
};

// What a fault can have cost.
struct Fault {
  bool killed = false;  // the program, with no chance of an end of its own
  bool output_failed = false;
  bool record_unread = false;  // the record could not be read
};

// The report's job by the default schedule, and by that of the server.
struct Jobs {
  std::string by_default;
  std::string by_server;
};

class Checks {
 public:
  Checks(Report& report, Jobs jobs) : report_(report), jobs_(std::move(jobs)) {}

  // The device as the flow finds it, and as the undisturbed flow leaves it. Throw
  // std::runtime_error when there is nothing to compare with.
  void NoteStart(const Subject& subject);
  void NoteEnd(const lab::ProcessResult& result);

  // The end of a flow that was allowed to end.
  void CheckEnd(const lab::ProcessResult& result, const Fault& fault,
                std::chrono::seconds limit) const;
  void CheckState(const Fault& fault);
  void CheckLeftovers(const std::string& when) const;
  // After the flow has run once more, undisturbed: as if nothing had happened.
  void CheckAgain(const lab::ProcessResult& result, const Fault& fault);

 private:
  [[nodiscard]] const lab::Flow& flow() const { return *subject_.flow; }
  [[nodiscard]] bool MayVanish() const;
  [[nodiscard]] bool IsGoodEnd(const lab::ProcessResult& result) const;
  [[nodiscard]] bool IsKnownEnd(const lab::ProcessResult& result, const Fault& fault) const;
  [[nodiscard]] bool MayKeepAnotherJob() const;
  [[nodiscard]] bool IsOtherGoodJob(const std::string& path, const Fault& fault) const;
  void CheckRecord();
  void CheckValue(const std::string& key, const std::string& value) const;
  void CheckMode(const char* path) const;
  void CheckTokens() const;
  void CheckSchedules(const Fault& fault) const;
  void CheckLocks() const;
  void CheckProcesses() const;
  void CheckEndingFiles(const Fault& fault) const;

  Report& report_;
  Jobs jobs_;
  Subject subject_;
  DeviceState before_;
  DeviceState after_;  // as it should be
  Record now_;
};

}  // namespace torture
