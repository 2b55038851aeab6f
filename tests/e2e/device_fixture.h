// The fixture of the end-to-end tests.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "lab/device.h"

using lab::kApiKeyFile;
using lab::kEmail;
using lab::kEvents;
using lab::kNotices;
using lab::kPassword;
using lab::kProgram;
using lab::kQueryPath;
using lab::kRecord;
using lab::kReportJob;
using lab::kReportPath;
using lab::kSerial;
using lab::kTokenPath;
using lab::kTokens;

class DeviceTest : public testing::Test, protected lab::Device {
 protected:
  using lab::Device::Run;  // not the test's own
};
