#include "lab/device.h"

#include <json/reader.h>

#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <regex>
#include <sstream>
#include <stdexcept>

namespace lab {
namespace {

devcloud::CloudOptions InLab() {
  if (std::getenv("LAB_INSIDE") == nullptr) {
    throw std::runtime_error("this test writes to the appliance's paths: run it with lab/run");
  }
  devcloud::CloudOptions options;
  options.port = 443;
  return options;
}

}  // namespace

Device::Device() : cloud_(InLab()) {
  test_files::Write("/etc/ssl/certs/ca-certificates.crt", cloud_.authority().certificate_pem());
  account_.email = kEmail;
  account_.full_name = "Anna Müller";
  account_.country = "CH";
  account_.timezone = "Europe/Zurich";
  account_.notify_language = "ger";
  account_.critical_version_list = {{"7.1", true}, {"7.2", false}, {"7.3", true}};
  if (!cloud_.store().AddAccount(account_, kPassword)) {
    throw std::runtime_error("cannot add the account");
  }
  cloud_.store().PutDevice({.serial = kSerial, .mac = "02:00:5e:10:00:01"});
}

devcloud::Link Device::LinkDevice() {
  const auto link = cloud_.store().LinkDevice(kSerial, account_.user_id);
  test_files::Write(
      kRecord,
      "zomiIDSerial=\"" + link.value().user_id + "\"\nhs_auth_key=\"" + link->auth_key + "\"\n",
      0600);
  return *link;
}

void Device::SetState(const std::string& word) {
  account_.state = word;
  Update(account_);
}

void Device::Update(const devcloud::Account& account) {
  if (!cloud_.store().UpdateAccount(account)) throw std::runtime_error("cannot update the account");
}

ProcessResult Device::Run(const std::vector<std::string>& options) {
  std::vector<std::string> words = {kProgram};
  words.insert(words.end(), options.begin(), options.end());
  return RunProcess(words);
}

ProcessResult Device::LogIn(const std::vector<std::string>& options, const std::string& input) {
  std::vector<std::string> words = {kLoginProgram};
  words.insert(words.end(), options.begin(), options.end());
  return RunProcess(words, {.stdin_text = input});
}

void Device::StartWorkersBehind(const std::string& words) {
  StartWorkerBehind(kHttpWorker, words);
  StartWorkerBehind(kCloudWorker, words);
}

void Device::StartWorkerBehind(const std::string& worker, const std::string& words) {
  const std::string real = worker + ".real";
  if (!test_files::Exists(real)) std::filesystem::rename(worker, real);
  test_files::Write(worker, "#!/bin/sh\nexec " + words + " " + real + "\n", 0755);
}

void Device::StartWorkerAlone(const std::string& worker) {
  if (test_files::Exists(worker + ".real")) std::filesystem::rename(worker + ".real", worker);
}

std::vector<std::string> Device::FastClock(int times) {
  const std::string speed = "+0 x" + std::to_string(times);
  StartWorkersBehind("env LD_PRELOAD='/usr/$LIB/faketime/libfaketime.so.1' FAKETIME='" + speed +
                     "'");
  test_files::Write("/etc/faketimerc", speed + "\n");  // the programs drop their environment
  return {"faketime", "-f", speed};
}

std::vector<std::string> Device::Log() {
  std::vector<std::string> texts;
  for (const LogLine& line : sink_.Lines()) {
    texts.push_back(std::regex_replace(line.text, std::regex("^([^ :]+):[0-9]+ "), "$1 ",
                                       std::regex_constants::format_first_only));
  }
  return texts;
}

std::optional<std::string> Device::RecordValue(const std::string& key) {
  std::smatch match;
  const std::string record = test_files::Read(kRecord);
  if (!std::regex_search(record, match, std::regex("(^|\n)" + key + "=\"([^\n]*)\"\n"))) {
    return std::nullopt;
  }
  return match[2];
}

void Device::SetRecordValue(const std::string& key, const std::string& value) {
  const std::string line = key + "=\"" + value + "\"\n";
  test_files::Write(
      kRecord,
      std::regex_replace(test_files::Read(kRecord), std::regex(key + "=\"[^\n]*\"\n"), line), 0600);
}

void Device::SetLastQueryAge(long seconds) {
  SetRecordValue("last_query_time", std::to_string(std::time(nullptr) - seconds));
}

Json::Value Device::Tokens() {
  Json::Value tokens;
  std::istringstream(test_files::Read(kTokens)) >> tokens;
  return tokens;
}

void Device::AgeTokens(int seconds) {
  Json::Value tokens = Tokens();
  tokens["created_at"] = Json::Int64(std::time(nullptr) - seconds);
  test_files::Write(kTokens, tokens.toStyledString(), 0600);
}

}  // namespace lab
