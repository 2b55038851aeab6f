#include "devcloud/state/account.h"

#include <gtest/gtest.h>

namespace {

TEST(SerialTest, OnlyWhatADeviceCouldHave) {
  EXPECT_TRUE(devcloud::IsValidSerial("NL00000001A"));
  EXPECT_FALSE(devcloud::IsValidSerial(""));
  EXPECT_FALSE(devcloud::IsValidSerial("-1"));
  EXPECT_FALSE(devcloud::IsValidSerial("a b"));
  EXPECT_FALSE(devcloud::IsValidSerial(std::string(36, 'a')));
}

TEST(MacTest, PairsWithAndWithoutDividers) {
  EXPECT_TRUE(devcloud::IsValidMac("02:00:5e:10:00:01"));
  EXPECT_TRUE(devcloud::IsValidMac("02-00-5E-10-00-01"));
  EXPECT_TRUE(devcloud::IsValidMac("02005e100001"));
  EXPECT_FALSE(devcloud::IsValidMac("02:00:5e:10:00"));
  EXPECT_FALSE(devcloud::IsValidMac("02:00:5e:10:00:0g"));
  EXPECT_FALSE(devcloud::IsValidMac(":::02005e100001"));
  EXPECT_FALSE(devcloud::IsValidMac("02:00:5e:10:00:01:"));
}

}  // namespace
