#include "lab/torture/selection.h"

#include <algorithm>

namespace torture {
namespace {

// The same on every machine.
unsigned long Hash(const std::string& name) {
  constexpr unsigned long kModulus = 1000003;
  unsigned long sum = 7;
  for (const char c : name) sum = (sum * 31 + static_cast<unsigned char>(c)) % kModulus;
  return sum;
}

}  // namespace

bool Selection::Includes(const std::string& name) const {
  const std::string flow = name.substr(0, name.find(' '));
  if (!flows.empty() && std::find(flows.begin(), flows.end(), flow) == flows.end()) return false;
  return Hash(name) % shares == share && Hash(name) / shares % every == 0;
}

}  // namespace torture
