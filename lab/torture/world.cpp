#include "lab/torture/world.h"

#include <filesystem>
#include <sstream>
#include <stdexcept>

namespace torture {
namespace {

using lab::Stored;

constexpr char kPlugInLog[] = "/var/tmp/plugins.log";
constexpr int kOld = 7200;  // seconds: the tokens have expired

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

void EmptyFolder(const char* folder) {
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    std::filesystem::remove_all(entry);
  }
}

void MakeProfileOld() {
  lab::Device::SetLastQueryAge(1000);
  lab::Device::SetRecordValue("full_name", "Former Name");
  lab::Device::SetRecordValue("country", "AT");
}

void AddOldCrontabLine() {
  test_files::Write(lab::kCrontab, test_files::Read(lab::kCrontab) +
                                       "5 6 * * 1 root /usr/kivo/bin/nodelink --report_info\n");
}

}  // namespace

World::World() {
  for (const lab::Person* person : {&lab::kBen, &lab::kCarla}) {
    devcloud::Account account;
    account.email = person->email;
    if (!cloud_.store().AddAccount(account, person->password)) {
      throw std::runtime_error("cannot add an account");
    }
  }
  for (const lab::Person* person : {&lab::kAnna, &lab::kBen, &lab::kCarla}) {
    devcloud::Account account = cloud_.store().FindAccountByEmail(person->email).value();
    account.report_cron_timestring = person->schedule;
    Update(account);
  }
}

void World::ForgetFiles() {
  for (const char* folder : {lab::kPrivateFolder, lab::kApiKeyFolder}) EmptyFolder(folder);
  for (const char* path : {lab::kReportJob, lab::kNotices, kPlugInLog}) test_files::Remove(path);
  test_files::Write(lab::kCrontab, "# the older schedule\n1 2 * * * root true\n");
  for (const std::string& name : test_files::NamesIn("/tmp")) {
    if (name.starts_with("account_")) test_files::Remove("/tmp/" + name);
  }
}

void World::ForgetThePast() {
  cloud_.log().Clear();
  sink_.Clear();
}

void World::Reset() {
  cloud_.faults().Clear();
  cloud_.held().ReleaseAll();
  cloud_.store().RemoveDevice(lab::kSerial);
  cloud_.store().PutDevice({.serial = lab::kSerial, .mac = "02:00:5e:10:00:01"});
  ForgetFiles();
  ForgetThePast();
}

void World::Link(const lab::Person& person) {
  if (LogIn({"--password", person.email}, std::string(person.password) + "\n").exit_status != 0 ||
      Run({"--report_info"}).exit_status != 0 || !test_files::Exists(lab::kTokens)) {
    throw std::runtime_error("the device cannot be linked");
  }
  test_files::Remove(kPlugInLog);
  cloud_.log().Clear();
}

void World::Change(Stored stored) {
  if (stored == Stored::kOldProfile) MakeProfileOld();
  if (stored == Stored::kOldSchedule || stored == Stored::kOldCrontab) {
    SetRecordValue("report_cron_timestring", "1 2 * * 3");
  }
  if (stored == Stored::kOldSchedule) (void)Run({"--update"});
  if (stored == Stored::kOldCrontab) AddOldCrontabLine();
  if (stored == Stored::kNoTokens) test_files::Remove(lab::kTokens);
  if (stored == Stored::kExpiredTokens || stored == Stored::kRevokedTokens) AgeTokens(kOld);
  if (stored == Stored::kRevokedTokens) cloud_.tokens().RevokeFamily(FamilyOfTokens().value().id);
}

void World::Prepare(const lab::Flow& flow) {
  if (flow.stored == Stored::kNothing) return;
  Link(lab::kAnna);
  Change(flow.stored);
  if (flow.link_is_over) cloud_.store().Unlink(lab::kSerial);
}

std::string World::UserIdOf(const lab::Person& person) {
  return cloud_.store().FindAccountByEmail(person.email).value().user_id;
}

std::optional<devcloud::Family> World::FamilyOfTokens() {
  return cloud_.tokens().FindByAnyToken(Tokens()["refresh_token"].asString(),
                                        devcloud::TokenKind::kRefresh);
}

std::optional<std::string> World::OwnerOfTokens() {
  if (!test_files::Exists(lab::kTokens)) return std::nullopt;
  const auto family = FamilyOfTokens();
  return family ? family->grant.user_id : "";
}

std::size_t World::Notices() { return Lines(test_files::Read(lab::kNotices)).size(); }

void World::InstallPlugIns() {
  for (const std::string event : {"login", "logout"}) {
    test_files::Write("/usr/kivo/lib/plugin/zomi/" + event + "/10-log",
                      "#!/bin/sh\necho \"" + event + " $1\" >>" + kPlugInLog + "\n", 0755);
  }
}

std::vector<std::string> World::PlugInCalls() { return Lines(test_files::Read(kPlugInLog)); }

}  // namespace torture
