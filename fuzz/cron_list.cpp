// The cron file of a job list. Input: the list, as JSON.
#include <json/reader.h>
#include <json/value.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <sstream>

#include "fuzz/property.h"
#include "hos/linux/schedule.h"
#include "kivo/crond.h"
#include "lab/files.h"

namespace {

constexpr char kPath[] = "/etc/cron.d/kivo-fuzz";
constexpr std::size_t kHeaderLines = 3;
constexpr std::size_t kScheduleFields = 5;

bool Parse(const std::string& text, Json::Value& value) try {
  const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
  return reader->parse(text.data(), text.data() + text.size(), &value, nullptr);
} catch (const Json::Exception&) {
  return false;  // nested too deep
}

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

// Takes the text up to the next blank from `line`.
std::string TakeField(std::string& line) {
  const std::size_t end = std::min(line.find(' '), line.size());
  std::string field = line.substr(0, end);
  line.erase(0, end + 1);
  return field;
}

// What cron hands to the shell.
std::string AsCronReads(const std::string& command) {
  std::string out;
  for (const char c : command) {
    const bool escaped = !out.empty() && out.back() == '\\';
    if (c == '%' && !escaped) break;
    if (c == '%') out.pop_back();
    out += c;
  }
  return out;
}

// What the shell makes of single quotes, backslashes and blanks.
std::vector<std::string> AsShellReads(const std::string& command) {
  std::vector<std::string> words(1);
  bool quoted = false;
  for (std::size_t i = 0; i < command.size(); ++i) {
    const char c = command[i];
    if (c == '\'') {
      quoted = !quoted;
    } else if (quoted) {
      words.back() += c;
    } else if (c == ' ') {
      words.emplace_back();
    } else {
      words.back() += c == '\\' && i + 1 < command.size() ? command[++i] : c;
    }
  }
  return words;
}

std::vector<std::string> WordsOf(const Json::Value& job) {
  std::vector<std::string> words;
  for (const Json::Value& word : job["cmd_list"]) words.push_back(word.asString());
  return words;
}

void CheckJob(std::string line, const Json::Value& job) {
  fuzz::Check(std::none_of(line.begin(), line.end(),
                           [](char c) { return (c >= 0 && c < ' ') || c == '\x7f'; }),
              "a job is one line without control characters");
  std::string schedule = TakeField(line);
  for (std::size_t i = 1; i < kScheduleFields; ++i) schedule += " " + TakeField(line);
  fuzz::Check(hos_linux::ResolveSchedule(schedule, "", "") == schedule || schedule.size() > 512,
              "a job's schedule is one of plain fields");
  fuzz::Check(TakeField(line) == job["user"].asString(), "then comes its user");
  fuzz::Check(AsShellReads(AsCronReads(line)) == WordsOf(job),
              "the shell sees the words of the command and no more");
}

void CheckList(const Json::Value& jobs) {
  const std::vector<std::string> lines = Lines(test_files::Read(kPath));
  fuzz::Check(lines.size() == kHeaderLines + jobs.size(), "a list has one line for each job");
  for (Json::ArrayIndex i = 0; i < jobs.size(); ++i) CheckJob(lines[kHeaderLines + i], jobs[i]);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Json::Value jobs;
  if (!Parse(std::string(data, data + size), jobs)) return 0;
  unlink(kPath);
  KIVO::KIVOCrond::ConfigManager manager("fuzz", false);
  if (manager.Save(jobs)) {
    CheckList(jobs);
  } else {
    fuzz::Check(access(kPath, F_OK) != 0, "a list that is refused is not written");
  }
  return 0;
}
