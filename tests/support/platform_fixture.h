// The fixture of the product's unit tests: a fresh scripted platform, no hooks, an empty log and no
// account record.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "lab/files.h"
#include "lab/syslog_sink.h"
#include "tests/fake_hos/fake_hos.h"
#include "tests/support/interpose.h"

class PlatformTest : public testing::Test {
 protected:
  PlatformTest();
  ~PlatformTest() override;  // fails the test when the flow left platform objects alive

  static fake_hos::Platform& platform() { return fake_hos::platform(); }
  static interpose::Hooks& hooks() { return interpose::hooks(); }

  // The lines logged so far as "FILE MESSAGE": without the line number, which moves with the code.
  std::vector<std::string> Log();

  // The same with the line number, "FILE:LINE MESSAGE".
  std::vector<std::string> LogWithLines();

  // With the priority, "auth.info FILE MESSAGE".
  std::vector<std::string> LogWithPriorities();

  void ClearLog() { sink_.Clear(); }

  // The account record: writes it whole with mode 0600, reads it whole ("" when missing), removes
  // it.
  static void WriteRecord(const std::string& content);
  static std::string ReadRecord();
  static bool HasRecord();
  static void RemoveRecord();

 private:
  lab::SyslogSink sink_;
};
