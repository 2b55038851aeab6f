// A folder of its own for a test, removed with all it holds.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>

namespace devcloud_test {

class TemporaryFolder {
 public:
  TemporaryFolder() : path_(std::filesystem::temp_directory_path() / "devcloud-XXXXXX") {
    if (::mkdtemp(path_.data()) == nullptr) throw std::runtime_error("mkdtemp");
  }
  ~TemporaryFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;

  [[nodiscard]] const std::string& path() const { return path_; }
  void Write(const std::string& name, const std::string& content) const {
    std::ofstream(path_ + "/" + name, std::ios::binary) << content;
  }
  [[nodiscard]] std::string Read(const std::string& name) const {
    std::ifstream in(path_ + "/" + name, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
  }

 private:
  std::string path_;
};

}  // namespace devcloud_test
