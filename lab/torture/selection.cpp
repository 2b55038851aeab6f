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

bool Selection::TakesFlow(const std::string& flow) const {
  return flows.empty() || std::find(flows.begin(), flows.end(), flow) != flows.end();
}

bool Selection::IsShared(const std::string& name) const { return Hash(name) % shares == share; }

bool Selection::IsSampled(const std::string& name, unsigned long step) const {
  return Hash(name) / shares % (every * step) == 0;
}

}  // namespace torture
