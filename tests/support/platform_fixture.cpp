#include "tests/support/platform_fixture.h"

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <stdexcept>

#include "account/account_files.h"

namespace {

// "FILE:LINE MESSAGE" without ":LINE".
std::string WithoutLine(const std::string& text) {
  const std::size_t colon = text.find(':');
  const std::size_t space = text.find(' ');
  return colon == std::string::npos || space == std::string::npos || space < colon
             ? text
             : text.substr(0, colon) + text.substr(space);
}

void RequireLab() {
  if (std::getenv("LAB_INSIDE") == nullptr) {
    throw std::runtime_error("this test writes to the appliance's paths: run it with lab/run");
  }
}

}  // namespace

PlatformTest::PlatformTest() {
  RequireLab();
  platform().Reset();
  interpose::Reset();
  RemoveRecord();
}

PlatformTest::~PlatformTest() {
  interpose::Reset();
  EXPECT_EQ(platform().live_objects(), 0) << "platform objects were not given back";
}

std::vector<std::string> PlatformTest::Log() {
  std::vector<std::string> texts;
  for (const lab::LogLine& line : sink_.Lines()) texts.push_back(WithoutLine(line.text));
  return texts;
}

std::vector<std::string> PlatformTest::LogWithLines() {
  std::vector<std::string> texts;
  for (const lab::LogLine& line : sink_.Lines()) texts.push_back(line.text);
  return texts;
}

std::vector<std::string> PlatformTest::LogWithPriorities() {
  std::vector<std::string> texts;
  for (const lab::LogLine& line : sink_.Lines()) {
    texts.push_back(lab::PriorityName(line) + " " + WithoutLine(line.text));
  }
  return texts;
}

void PlatformTest::WriteRecord(const std::string& content) {
  test_files::Write(nodelink::account_files::kRecord, content, 0600);
}

std::string PlatformTest::ReadRecord() {
  return test_files::Read(nodelink::account_files::kRecord);
}

bool PlatformTest::HasRecord() { return access(nodelink::account_files::kRecord, F_OK) == 0; }

void PlatformTest::RemoveRecord() { std::filesystem::remove(nodelink::account_files::kRecord); }
