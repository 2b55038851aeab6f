// Runs a fuzz target on every file of the folders given: a test with any compiler.
#include <algorithm>
#include <cstdint>
#include <exception>
#include <filesystem>
#include <iostream>
#include <vector>

#include "fuzz/property.h"
#include "lab/files.h"

namespace {

std::vector<std::filesystem::path> FilesOf(const char* folder) {
  std::vector<std::filesystem::path> files;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    files.push_back(entry.path());
  }
  std::sort(files.begin(), files.end());
  return files;
}

void Run(const std::filesystem::path& path) {
  std::cout << path.filename().string() << std::endl;  // before the run: it may not come back
  const std::string text = test_files::Read(path);
  // An exact copy on the heap, so that a sanitizer sees a read past its end.
  const std::vector<std::uint8_t> bytes(text.begin(), text.end());
  LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
}

// The number of files run.
std::size_t RunAll(const std::vector<const char*>& folders) {
  std::size_t count = 0;
  for (const char* folder : folders) {
    for (const std::filesystem::path& path : FilesOf(folder)) {
      Run(path);
      ++count;
    }
  }
  return count;
}

}  // namespace

int main(int argc, char** argv) try {
  const std::size_t count = RunAll({argv + 1, argv + argc});
  std::cout << count << " inputs\n";
  return count == 0 ? 1 : 0;
} catch (const std::exception& failure) {
  std::cerr << failure.what() << '\n';
  return 1;
}
