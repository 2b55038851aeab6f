// What programs may rely on in the lab. Runs in it, like every other test.

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netdb.h>
#include <netinet/in.h>
#include <pwd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <iterator>
#include <string>

#include "base/unique_fd.h"
#include "lab/files.h"
#include "lab/process.h"

namespace lab {
namespace {

TEST(Sandbox, SaysThatItIsTheLab) {
  ASSERT_NE(std::getenv("LAB_INSIDE"), nullptr);
  EXPECT_EQ(geteuid(), 0U);
}

TEST(Sandbox, HasAnAppliancesFolders) {
  EXPECT_EQ(test_files::ModeOf("/tmp"), 01777U);
  EXPECT_EQ(test_files::ModeOf("/usr/kivo/etc/veltrix-account/private"), 0700U);
  EXPECT_EQ(test_files::ModeOf("/usr/kivo/etc/cloudservice"), 0700U);
  for (const char* folder :
       {"/etc/cron.d", "/etc/ssl/certs", "/run/kivo", "/usr/kivo/bin", "/usr/kivo/lib/plugin",
        "/usr/kivo/var", "/usr/kivo/etc.defaults/veltrix-account/config"}) {
    EXPECT_EQ(test_files::ModeOf(folder), 0755U) << folder;
  }
}

TEST(Sandbox, HasTheDevicesConfiguration) {
  std::ifstream file("/etc.defaults/kivoinfo.conf");
  const std::string text{std::istreambuf_iterator<char>(file), {}};
  EXPECT_THAT(text, ::testing::HasSubstr("serial_number=\"NL00000001A\"\n"));
}

TEST(Sandbox, LetsFilesChange) {
  for (const char* name : {"/etc/hosts", "/etc.defaults/kivoinfo.conf", "/usr/kivo/bin/new",
                           "/var/lib/new", "/run/new", "/dev/new"}) {
    EXPECT_TRUE(std::ofstream(name, std::ios::app) << "x\n") << name;
  }
  EXPECT_FALSE(std::ofstream("/usr/bin/new"));
}

TEST(Sandbox, KeepsTheTimeOfZurich) {
  const std::time_t summer = 1'751'371'200;  // 1 July 2025, 12:00 UTC
  std::tm local{};
  localtime_r(&summer, &local);
  EXPECT_EQ(local.tm_hour, 14);
  EXPECT_EQ(RunProcess({"cat", "/etc/timezone"}).out, "Europe/Zurich\n");
}

TEST(Sandbox, KnowsItsUsers) {
  for (const char* name : {"root", "admin", "webuser", "nobody"}) {
    EXPECT_NE(getpwnam(name), nullptr) << name;
  }
}

std::string AddressOf(const std::string& host) {
  addrinfo hints{};
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  if (getaddrinfo(host.c_str(), nullptr, &hints, &found) != 0) return "";
  char text[INET_ADDRSTRLEN] = "";
  sockaddr_in address{};
  std::copy_n(reinterpret_cast<const char*>(found->ai_addr), sizeof(address),
              reinterpret_cast<char*>(&address));
  freeaddrinfo(found);
  return inet_ntop(AF_INET, &address.sin_addr, text, sizeof(text));
}

TEST(Sandbox, FindsTheCloudAtHomeAndNothingElse) {
  for (const std::string name : {"payment", "account", "identity"}) {
    EXPECT_EQ(AddressOf(name + ".veltrix.example"), "127.0.0.1") << name;
    EXPECT_EQ(AddressOf(name + ".test.veltrix.example"), "127.0.0.1") << name;
  }
  EXPECT_EQ(AddressOf("cloudservice.veltrix.example"), "127.0.0.1");
  EXPECT_EQ(AddressOf("www.example.org"), "");
}

TEST(Sandbox, HasTheHttpsPortForItself) {
  const base::UniqueFd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(443);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  EXPECT_EQ(bind(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
}

TEST(Sandbox, HasItsOwnProcesses) {
  EXPECT_EQ(getppid(), 1);  // the sandbox's first process, which reaps what is left behind
}

}  // namespace
}  // namespace lab
