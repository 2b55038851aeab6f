#include <gtest/gtest.h>

#include <cstdlib>
#include <iostream>

namespace {

// These tests write the appliance's own files: outside the sandbox they would harm the machine.
class LabOnly : public testing::Environment {
 public:
  void SetUp() override {
    if (std::getenv("LAB_INSIDE") != nullptr) return;
    std::cerr << "run this program with lab/run\n";
    std::_Exit(2);
  }
};

[[maybe_unused]] const testing::Environment* const kLabOnly =
    testing::AddGlobalTestEnvironment(new LabOnly);

}  // namespace
