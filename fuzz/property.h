// What the fuzz targets share: promises that end the program when broken, and inputs of parts.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace fuzz {

// Ends the program with `promise` on standard error when `kept` is false.
void Check(bool kept, const char* promise);

// The input as `count` texts that NUL bytes separate: missing ones are empty, the last takes all
// that is left.
std::vector<std::string> Parts(const std::uint8_t* data, std::size_t size, std::size_t count);

}  // namespace fuzz

// The target: gives one input to the code under test. Returns 0.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);
