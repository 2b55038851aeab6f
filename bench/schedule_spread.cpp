// How evenly the default report schedule falls on a million devices: the busiest minute of the
// week, beside that of a perfectly random spread. Exit status 1 when it is more than 10 % busier.
#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "hos/linux/schedule.h"

namespace {

constexpr char kSchedule[] = "~ 9~16 * * 1~5";
constexpr int kDevices = 1'000'000;
constexpr std::size_t kFirstHour = 9;
constexpr std::size_t kHours = 8;
constexpr std::size_t kMinutes = 60;
constexpr std::size_t kSlots = kMinutes * kHours * 5;
constexpr int kRandomRuns = 20;
constexpr double kTolerance = 1.10;

using Load = std::vector<int>;  // devices a minute

std::size_t SlotOf(const std::string& schedule) {
  std::istringstream fields(schedule);
  std::size_t minute = 0;
  std::size_t hour = 0;
  std::size_t weekday = 0;
  std::string star;
  if (!(fields >> minute >> hour >> star >> star >> weekday) || hour < kFirstHour || weekday < 1) {
    std::fprintf(stderr, "not a resolved schedule: %s\n", schedule.c_str());
    std::exit(2);
  }
  return ((weekday - 1) * kHours + hour - kFirstHour) * kMinutes + minute;
}

// Serial numbers in a row, as they leave a factory: the hardest case for a bad hash.
Load DrawnLoad() {
  Load load(kSlots);
  for (int device = 0; device < kDevices; ++device) {
    std::array<char, 16> serial{};
    std::snprintf(serial.data(), serial.size(), "NL%09d", device);
    const auto schedule = hos_linux::ResolveSchedule(kSchedule, serial.data(), "zomi/job");
    ++load.at(SlotOf(schedule.value_or("")));
  }
  return load;
}

Load RandomLoad(unsigned int seed) {
  std::mt19937_64 generator(seed);
  std::uniform_int_distribution<std::size_t> slot(0, kSlots - 1);
  Load load(kSlots);
  for (int device = 0; device < kDevices; ++device) ++load[slot(generator)];
  return load;
}

int Busiest(const Load& load) { return *std::max_element(load.begin(), load.end()); }

// Averaged: a single random spread is a matter of luck itself.
double BusiestAtRandom() {
  double sum = 0;
  for (unsigned int seed = 1; seed <= kRandomRuns; ++seed) sum += Busiest(RandomLoad(seed));
  return sum / kRandomRuns;
}

}  // namespace

int main() {
  const int drawn = Busiest(DrawnLoad());
  const double random = BusiestAtRandom();
  std::printf("schedule              %s\n", kSchedule);
  std::printf("devices               %d\n", kDevices);
  std::printf("mean load             %.1f devices a minute\n",
              1.0 * kDevices / static_cast<double>(kSlots));
  std::printf("busiest minute        %d\n", drawn);
  std::printf("busiest at random     %.1f (mean of %d spreads)\n", random, kRandomRuns);
  std::printf("ratio                 %.3f (at most %.2f)\n", drawn / random, kTolerance);
  return drawn <= random * kTolerance ? 0 : 1;
}
