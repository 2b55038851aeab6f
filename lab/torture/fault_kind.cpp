#include "lab/torture/fault_kind.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <utility>

#include "lab/users.h"

namespace torture {
namespace {

using lab::Stored;
using lab::Way;

std::vector<Subject> Subjects(const std::vector<Way>& ways) {
  std::vector<Subject> subjects;
  for (const Way way : ways) {
    for (const lab::Flow& flow : lab::Flows()) {
      if (std::find(flow.disturbed.begin(), flow.disturbed.end(), way) != flow.disturbed.end()) {
        subjects.push_back({&flow, way});
      }
    }
  }
  return subjects;
}

// They make the logins and the logout start processes.
void InstallQuietPlugIns() {
  for (const std::string event : {"login", "logout"}) {
    const std::string folder = "/usr/kivo/lib/plugin/zomi/" + event;
    test_files::MakeFolder(folder);
    std::filesystem::copy_file("/bin/true", folder + "/1-true");
  }
}

Jobs NoteJobs(World& world) {
  World::ForgetFiles();
  world.Link(lab::kAnna);
  Jobs jobs{.by_default = {}, .by_server = test_files::Read(lab::kReportJob)};
  World::ForgetFiles();
  (void)World::Run({"--update"});
  jobs.by_default = test_files::Read(lab::kReportJob);
  return jobs;
}

// Running these flows leaves the server as it was.
bool HasBase(Stored stored) {
  return stored == Stored::kOldProfile || stored == Stored::kOldSchedule ||
         stored == Stored::kOldCrontab;
}

}  // namespace

FaultKind::FaultKind(Report& report, std::vector<Way> ways, std::chrono::seconds limit)
    : Kind(report), ways_(std::move(ways)), limit_(limit), checks_(report, NoteJobs(world_)) {
  std::filesystem::current_path("/");  // traces name it too
  unsetenv("LAB_LOG_COLLECT");         // what is logged under faults is no evidence for a whole run
  test_files::MakeFolder(kWork);
  test_files::MakeFolder(kWorkersFolder, 01777);
  InstallQuietPlugIns();
  if (!lab::HasOtherUsers() && std::erase(ways_, Way::kForeign) != 0) {
    std::puts("No other users in the lab of an ordinary user: no flows of a service account.");
  }
}

std::vector<std::string> FaultKind::Flows() {
  std::vector<std::string> names;
  for (const Subject& subject : Subjects(ways_)) names.push_back(subject.Name());
  return names;
}

void FaultKind::Survey(const std::string& name) {
  const std::vector<Subject> subjects = Subjects(ways_);
  const auto found = std::find_if(subjects.begin(), subjects.end(),
                                  [&name](const auto& subject) { return subject.Name() == name; });
  if (found == subjects.end()) throw std::runtime_error("no flow " + name);
  subject_ = *found;
  report().BeginCase(name + " undisturbed");
  MakeBase();
  Prepare();
  checks_.NoteStart(subject_);
  checks_.NoteEnd(RunSurveyed());
}

void FaultKind::MakeBase() {
  base_.reset();
  well_linked_ = false;
  if (!HasBase(flow().stored)) return;
  World::ForgetFiles();
  world_.Prepare(flow());
  base_ = ReadFiles();
}

void FaultKind::Prepare() {
  world_.ForgetThePast();
  const Stored stored = flow().stored;
  if (base_) {
    PutFiles(*base_);
    return;
  }
  if (!well_linked_ || stored == Stored::kNothing || stored == Stored::kLink) {
    World::ForgetFiles();
    world_.Prepare(flow());
  } else {
    world_.Change(stored);
  }
}

lab::ProcessResult FaultKind::RunFlow(std::vector<std::string> prefix) {
  if (subject_.way == Way::kForeign) {
    prefix.insert(prefix.end(), {"setpriv", "--euid", "1026", "--egid", "100", "--clear-groups"});
  }
  last_ = lab::Run(flow().command, prefix, limit_);
  return last_;
}

void FaultKind::SetPlace(const std::string& place) {
  place_ = "at: " + place;
  report().SetPlace(place_);
}

void FaultKind::CheckAgain(const Fault& fault) {
  well_linked_ = false;
  World::StartWorkerAlone(lab::kHttpWorker);
  if (flow().may_log_out && !test_files::Exists(lab::kRecord)) return;  // logged out, for good
  if (RecordOutlivedLogout(fault)) {
    report().KnownLimit("the record outlived the logout");
    test_files::Remove(lab::kRecord);  // as the operating instructions say
  }
  checks_.CheckAgain(RunFlow(), fault);
  well_linked_ = report().case_is_good();
}

// A known limit: a logout goes on when the record could not be removed (or its plug-ins failed).
// Then the server has forgotten a device that believes it is linked, and refuses every later
// logout: an administrator has to remove the record.
bool FaultKind::RecordOutlivedLogout(const Fault& fault) const {
  return flow().command.ends_link && !fault.killed && test_files::Exists(lab::kRecord) &&
         !test_files::Exists(lab::kTokens);
}

void FaultKind::ShowLast() {
  std::printf("%s\nstatus %d, signal %d\n%s%s", place_.c_str(), last_.exit_status, last_.signal,
              last_.out.c_str(), last_.err.c_str());
}

}  // namespace torture
