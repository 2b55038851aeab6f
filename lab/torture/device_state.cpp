#include "lab/torture/device_state.h"

#include <filesystem>
#include <stdexcept>
#include <string_view>
#include <vector>

namespace torture {
namespace {

namespace fs = std::filesystem;

std::vector<std::string> FilesIn(const char* folder) {
  std::vector<std::string> files;
  for (const auto& entry : fs::directory_iterator(folder)) {
    if (entry.is_regular_file()) files.push_back(entry.path());
  }
  return files;
}

// A line of the form key="value".
bool TakeLine(std::string_view line, Record& record) {
  const std::size_t equals = line.find("=\"");
  if (equals == 0 || equals == std::string_view::npos || !line.ends_with('"')) return false;
  const std::string_view key = line.substr(0, equals);
  line.remove_prefix(equals + 2);
  if (line.empty() || line.find('"') != line.size() - 1) return false;
  constexpr char kKeyLetters[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz_";
  if (key.find_first_not_of(kKeyLetters) != std::string_view::npos) return false;
  record[std::string(key)] = line.substr(0, line.size() - 1);
  return true;
}

}  // namespace

Files ReadFiles() {
  Files files;
  const auto add = [&files](const std::string& path) {
    files[path] = {test_files::Read(path), test_files::ModeOf(path)};
  };
  for (const char* folder : kStateFolders) {
    for (const std::string& path : FilesIn(folder)) add(path);
  }
  if (test_files::Exists(lab::kCrontab)) add(lab::kCrontab);
  return files;
}

void PutFiles(const Files& files) {
  for (const char* folder : kStateFolders) {
    for (const std::string& path : FilesIn(folder)) test_files::Remove(path);
  }
  for (const std::string& path : FilesIn("/etc")) {
    if (path == lab::kCrontab || path.starts_with("/etc/.")) test_files::Remove(path);
  }
  for (const std::string& path : FilesIn("/tmp")) {
    if (path.starts_with("/tmp/account_")) test_files::Remove(path);
  }
  for (const auto& [path, file] : files) test_files::Write(path, file.text, file.mode);
}

std::optional<Record> ReadRecord() {
  Record record;
  if (!test_files::Exists(lab::kRecord)) return record;
  const std::string text = test_files::Read(lab::kRecord);
  if (!text.ends_with('\n')) return std::nullopt;
  for (std::size_t begin = 0; begin < text.size();) {
    const std::size_t end = text.find('\n', begin);
    if (!TakeLine(std::string_view(text).substr(begin, end - begin), record)) return std::nullopt;
    begin = end + 1;
  }
  return record;
}

DeviceState ReadState() {
  auto record = ReadRecord();
  if (!record) throw std::runtime_error("the record is not whole");
  DeviceState state{*std::move(record), {}, test_files::Exists(lab::kTokens)};
  for (const char* path : {lab::kReportJob, lab::kCrontab}) {
    if (test_files::Exists(path)) state.schedules[path] = test_files::Read(path);
  }
  return state;
}

}  // namespace torture
