// Files as the tests make them and look at them.
#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>
#include <vector>

namespace test_files {

// Makes `path` (and its folders) with this content and mode. Throws std::runtime_error when it
// cannot.
void Write(const std::string& path, std::string_view text, mode_t mode = 0644);

// The content of `path`; "" when it is missing.
std::string Read(const std::string& path);

bool Exists(const std::string& path);
void Remove(const std::string& path);  // whatever it is, with everything in it
void MakeFolder(const std::string& path, mode_t mode = 0755);

// Of a file that is there.
mode_t ModeOf(const std::string& path);  // permission bits
ino_t InodeOf(const std::string& path);

// Names in the folder, in order, without "." and "..".
std::vector<std::string> NamesIn(const std::string& folder);

}  // namespace test_files
