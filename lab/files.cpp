#include "lab/files.h"

#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace test_files {
namespace {

struct stat StatOf(const std::string& path) {
  struct stat info = {};
  if (lstat(path.c_str(), &info) != 0) throw std::runtime_error("there is no " + path);
  return info;
}

void SetMode(const std::string& path, mode_t mode) {
  if (chmod(path.c_str(), mode) != 0) throw std::runtime_error("cannot change the mode of " + path);
}

}  // namespace

void Write(const std::string& path, std::string_view text, mode_t mode) {
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file << text;
  file.close();
  if (!file) throw std::runtime_error("cannot write " + path);
  SetMode(path, mode);
}

std::string Read(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

bool Exists(const std::string& path) {
  return std::filesystem::exists(std::filesystem::symlink_status(path));
}

void Remove(const std::string& path) { std::filesystem::remove_all(path); }

void MakeFolder(const std::string& path, mode_t mode) {
  std::filesystem::create_directories(path);
  SetMode(path, mode);
}

mode_t ModeOf(const std::string& path) { return StatOf(path).st_mode & 07777; }

ino_t InodeOf(const std::string& path) { return StatOf(path).st_ino; }

std::vector<std::string> NamesIn(const std::string& folder) {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    names.push_back(entry.path().filename().string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

}  // namespace test_files
