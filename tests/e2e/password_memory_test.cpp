// Where nodelink-login's memory still holds the password once the server has answered.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <regex>
#include <sstream>

#include "base/unique_fd.h"
#include "tests/e2e/device_fixture.h"

namespace {

using testing::IsEmpty;
using testing::SizeIs;

// A part of a process's memory, as the kernel lists it.
struct Region {
  std::uintptr_t begin = 0;
  std::uintptr_t end = 0;
  std::string line;  // its addresses, rights and name
  bool readable = false;
  bool locked = false;
  bool dumped = true;
};

std::vector<Region> RegionsOf(pid_t pid) {
  std::istringstream lines(test_files::Read("/proc/" + std::to_string(pid) + "/smaps"));
  std::vector<Region> regions;
  for (std::string line; std::getline(lines, line);) {
    Region region;
    char dash = '\0';
    std::string rights;
    std::istringstream words(line);
    if (words >> std::hex >> region.begin >> dash >> region.end >> rights && dash == '-') {
      region.line = line;
      region.readable = rights.starts_with('r') && !line.ends_with("[vvar]");
      regions.push_back(region);
    } else if (line.starts_with("VmFlags:")) {
      regions.back().locked = line.find(" lo") != std::string::npos;
      regions.back().dumped = line.find(" dd") == std::string::npos;
    }
  }
  return regions;
}

std::vector<Region> RegionsWith(pid_t pid, const std::string& text) {
  const base::UniqueFd memory(
      open(("/proc/" + std::to_string(pid) + "/mem").c_str(), O_RDONLY | O_CLOEXEC));
  std::vector<Region> found;
  for (const Region& region : RegionsOf(pid)) {
    std::string bytes(region.readable ? region.end - region.begin : 0, '\0');
    const ssize_t count =
        pread(memory.get(), bytes.data(), bytes.size(), static_cast<off_t>(region.begin));
    bytes.resize(static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    if (bytes.find(text) != std::string::npos) found.push_back(region);
  }
  return found;
}

// All but its beginning, which the C library overwrites in blocks that it keeps.
std::string EndOf(const std::string& password) { return password.substr(password.size() / 2); }

std::string Escaped(const std::string& text) {
  return std::regex_replace(text, std::regex(" "), "%20");
}

// Whether a string keeps a text within itself or in a block depends on its length. The spaces tell
// the password from the form of it that is sent.
class PasswordMemory : public DeviceTest, public testing::WithParamInterface<std::string> {};

TEST_P(PasswordMemory, HoldsItInLockedPagesAlone) {
#ifdef __SANITIZE_ADDRESS__
  GTEST_SKIP() << "the sanitizer keeps freed blocks as they were";
#endif
  devcloud::Account account;
  account.email = "ben@example.org";
  ASSERT_TRUE(cloud_.store().AddAccount(account, GetParam()));
  devcloud::FaultRule rule;
  rule.path = kQueryPath;
  rule.hold = true;
  cloud_.faults().Add(rule);
  lab::BackgroundProcess login({lab::kLoginProgram, "--password", account.email});
  login.Write(GetParam() + "\n");
  ASSERT_THAT(cloud_.held().WaitAndList(std::chrono::seconds(20)), SizeIs(1));
  for (const Region& region : RegionsWith(login.pid(), EndOf(GetParam()))) {
    EXPECT_TRUE(region.locked) << region.line;
    EXPECT_FALSE(region.dumped) << region.line;
  }
  EXPECT_THAT(RegionsWith(login.pid(), EndOf(GetParam())), SizeIs(1)) << "it can be found at all";
  EXPECT_THAT(RegionsWith(login.pid(), Escaped(EndOf(GetParam()))), IsEmpty());
  cloud_.held().ReleaseAll();
  EXPECT_EQ(login.Wait().exit_status, 0);
}

INSTANTIATE_TEST_SUITE_P(
    Passwords, PasswordMemory,
    testing::Values<std::string>("a short one", "longer than a string holds in itself",
                                 "as long as no other string is, so that none takes its place " +
                                     std::string(500, '-') + " in memory"),
    [](const auto& password) { return "Of" + std::to_string(password.param.size()); });

}  // namespace
