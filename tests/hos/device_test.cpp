#include <gtest/gtest.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "kivo/cloudservice.h"
#include "kivo/pkce.h"
#include "kivo/scemd.h"
#include "kivo/zone.h"
#include "klib/device.h"
#include "klibc/szhash.h"
#include "lab/files.h"

namespace {

constexpr char kFacts[] = "/etc.defaults/kivoinfo.conf";
constexpr char kStatus[] = "/run/kivo/scemd.status";
constexpr int kSize = 256;

std::string UserAgent() {
  char buffer[kSize] = "";
  EXPECT_GE(KLIBHsinfoUserAgentGet("zomi", buffer, kSize), 0);
  return buffer;
}

TEST(Device, TheKernelStandsInForAMissingVersionOrModel) {
  test_files::Remove(kFacts);
  utsname kernel = {};
  ASSERT_EQ(uname(&kernel), 0);
  EXPECT_EQ(UserAgent(), std::string("zomi HOS/") + kernel.release + " (" + kernel.machine + ")");
  test_files::Write(kFacts, "os_version=\"7.2.1\"\n");
  EXPECT_EQ(UserAgent(), std::string("zomi HOS/7.2.1 (") + kernel.machine + ")");
}

TEST(Device, AControlCharacterOfTheFactsStaysOutOfTheHeader) {
  test_files::Write(kFacts, "os_version=\"7\r\"\nmodel=\"a\x01z\"\n");
  EXPECT_EQ(UserAgent(), "zomi HOS/7  (a z)");
}

TEST(Device, TheFirmwareTellsTheSerialNumberWhenTheFactsDoNot) {
  test_files::Write(kFacts, "serial_number=\"\"\n");
  char buffer[kSize] = "";
  EXPECT_LT(KLIBGetSerialNumber(buffer, kSize), 0);
  test_files::Write("/sys/class/dmi/id/product_serial", " DMI42 \n");
  EXPECT_GE(KLIBGetSerialNumber(buffer, kSize), 0);
  EXPECT_STREQ(buffer, "DMI42");
}

TEST(Device, TheFirstPhysicalInterfaceTellsTheMacAddress) {
  test_files::Write(kFacts, "");
  test_files::Write("/sys/class/net/br0/address", "02:00:00:00:00:aa\n");
  test_files::Write("/sys/class/net/eth1/address", "02:00:00:00:00:02\n");
  test_files::MakeFolder("/sys/class/net/eth1/device");
  test_files::Write("/sys/class/net/eth0/address", "02:00:00:00:00:01\n");
  test_files::MakeFolder("/sys/class/net/eth0/device");
  test_files::Write("/sys/class/net/dummy0/address", "00:00:00:00:00:00\n");
  test_files::MakeFolder("/sys/class/net/dummy0/device");
  char buffer[kSize] = "";
  EXPECT_GE(KIVOHsinfoCloudServiceGetMacAddress(buffer, kSize), 0);
  EXPECT_STREQ(buffer, "02:00:00:00:00:01");
}

TEST(Zone, TheLinkTellsTheNameWhenTheFileDoesNot) {
  test_files::Remove("/etc/timezone");
  test_files::Remove("/etc/localtime");
  ASSERT_EQ(symlink("/usr/share/zoneinfo/Asia/Tokyo", "/etc/localtime"), 0);
  char buffer[kSize] = "";
  int needed = -1;
  EXPECT_GE(KIVOZoneGet(buffer, kSize, &needed), 0);
  EXPECT_STREQ(buffer, "Asia/Tokyo");
}

TEST(Zone, TheOffsetIsTheZonesAndTheProcessKeepsItsOwn) {
  KLIBCSZHASH* info = KLIBCSzHashAlloc(0);
  unsetenv("TZ");
  EXPECT_GE(KIVOZoneGetInfo("Asia/Tokyo", info), 1);
  EXPECT_STREQ(KLIBCSzHashGetValue(info, "utcOffset"), "32400");
  EXPECT_EQ(std::getenv("TZ"), nullptr);
  setenv("TZ", "America/Caracas", 1);
  EXPECT_GE(KIVOZoneGetInfo("Asia/Kolkata", info), 1);
  EXPECT_STREQ(KLIBCSzHashGetValue(info, "utcOffset"), "19800");
  EXPECT_STREQ(std::getenv("TZ"), "America/Caracas");
  KLIBCSzHashFree(info);
}

TEST(Zone, OnlyFilesOfTheTableAreZones) {
  KLIBCSZHASH* info = KLIBCSzHashAlloc(0);
  for (const char* name : {"", ".", "..", "/etc/localtime", "../../../etc/passwd", "Europe",
                           "Europe/", "Europe//Zurich", "zone.tab", "No/Where"}) {
    EXPECT_LT(KIVOZoneGetInfo(name, info), 1) << name;
  }
  EXPECT_EQ(KLIBCSzHashGetValue(info, "nameInTZDB"), nullptr);
  KLIBCSzHashFree(info);
}

TEST(Status, WhatIsNoNumberIsAFailure) {
  for (const char* text : {"", "x", "2x", " ", "99999999999", "0x2", "2.0"}) {
    test_files::Write(kStatus, std::string("1=\"") + text + "\"\n");
    int state = 7;
    EXPECT_EQ(KIVOScemdStatusGet(1, &state), -1) << text;
    EXPECT_EQ(state, 7);
  }
  test_files::Write(kStatus, "11=\"5\"\n1=\"-3\"\n");
  int state = 7;
  EXPECT_EQ(KIVOScemdStatusGet(1, &state), 0);
  EXPECT_EQ(state, -3);
}

TEST(Status, AFileThatCannotBeReadIsAFailure) {
  test_files::Remove(kStatus);
  test_files::MakeFolder(kStatus);
  int state = 7;
  EXPECT_EQ(KIVOScemdStatusGet(1, &state), -1);
  EXPECT_EQ(state, 7);
  test_files::Remove(kStatus);
}

TEST(Pkce, EveryPairIsNew) {
  char challenge[44] = "";
  char first[44] = "";
  char second[44] = "";
  ASSERT_GE(kivo_challenge_verifier_no_save(challenge, 44, first, 44), 0);
  ASSERT_GE(kivo_challenge_verifier_no_save(challenge, 44, second, 44), 0);
  EXPECT_STRNE(first, second);
}

}  // namespace
