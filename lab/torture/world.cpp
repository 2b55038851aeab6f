#include "lab/torture/world.h"

#include <filesystem>
#include <sstream>
#include <stdexcept>

namespace torture {
namespace {

constexpr char kPlugInLog[] = "/var/tmp/plugins.log";

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

void InstallPlugIns() {
  for (const std::string event : {"login", "logout"}) {
    test_files::Write("/usr/kivo/lib/plugin/zomi/" + event + "/10-log",
                      "#!/bin/sh\necho \"" + event + " $1\" >>" + kPlugInLog + "\n", 0755);
  }
}

void EmptyFolder(const char* folder) {
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    std::filesystem::remove_all(entry);
  }
}

}  // namespace

bool Command::Succeeded(const lab::ProcessResult& result) const {
  switch (kind) {
    case Kind::kQuery:
      return result.exit_status == 0 && result.out.starts_with("{");
    case Kind::kLogout:
    case Kind::kUpdate:
      return result.exit_status == 0 && result.out.empty();
    case Kind::kReport:
    case Kind::kPasswordLogin:
    case Kind::kBrowserLogin:
      return result.exit_status == 0;
  }
  return false;
}

World::World() {
  InstallPlugIns();
  for (const Person* person : {&kBen, &kCarla}) {
    devcloud::Account account;
    account.email = person->email;
    if (!cloud_.store().AddAccount(account, person->password)) {
      throw std::runtime_error("cannot add an account");
    }
  }
  for (const Person* person : {&kAnna, &kBen, &kCarla}) {
    devcloud::Account account = cloud_.store().FindAccountByEmail(person->email).value();
    account.report_cron_timestring = person->schedule;
    Update(account);
  }
}

void World::Reset() {
  cloud_.faults().Clear();
  cloud_.held().ReleaseAll();
  cloud_.store().RemoveDevice(lab::kSerial);
  cloud_.store().PutDevice({.serial = lab::kSerial, .mac = "02:00:5e:10:00:01"});
  cloud_.log().Clear();
  EmptyFolder(lab::kPrivateFolder);
  for (const char* path : {lab::kApiKeyFile, lab::kReportJob, lab::kNotices, kPlugInLog}) {
    test_files::Remove(path);
  }
  sink_.Clear();
}

void World::Link(const Person& person) {
  if (LogIn({"--password", person.email}, std::string(person.password) + "\n").exit_status != 0 ||
      Run({"--report_info"}).exit_status != 0 || !test_files::Exists(lab::kTokens)) {
    throw std::runtime_error("the device cannot be linked");
  }
  test_files::Remove(kPlugInLog);
  cloud_.log().Clear();
}

void World::EndLinkAtServer() { cloud_.store().Unlink(lab::kSerial); }

void World::RevokeTokens() {
  for (const auto& family : cloud_.tokens().Families()) cloud_.tokens().RevokeFamily(family.id);
}

void World::ExpireTokens() { AgeTokens(7200); }

void World::AgeProfile() { SetLastQueryAge(1000); }

std::string World::UserIdOf(const Person& person) {
  return cloud_.store().FindAccountByEmail(person.email).value().user_id;
}

std::optional<std::string> World::OwnerOfTokens() {
  if (!test_files::Exists(lab::kTokens)) return std::nullopt;
  const auto family = cloud_.tokens().FindByAnyToken(Tokens()["refresh_token"].asString(),
                                                     devcloud::TokenKind::kRefresh);
  return family ? family->grant.user_id : "";
}

std::size_t World::Notices() { return Lines(test_files::Read(lab::kNotices)).size(); }

std::vector<std::string> World::PlugInCalls() { return Lines(test_files::Read(kPlugInLog)); }

}  // namespace torture
