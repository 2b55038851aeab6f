// Schedules with drawn values. Input: serial number, name of the job, schedule.
#include "hos/linux/schedule.h"

#include <algorithm>

#include "fuzz/property.h"

namespace {

constexpr std::size_t kLongestThatIsRead = 512;
constexpr std::size_t kCronsLimit = 1000;

void CheckPlain(const std::string& schedule) {
  fuzz::Check(schedule.find_first_not_of("0123456789*,-/ ") == std::string::npos,
              "a resolved schedule is of numbers and cron's signs");
  fuzz::Check(std::count(schedule.begin(), schedule.end(), ' ') == 4, "it has five fields");
  fuzz::Check(
      schedule.front() != ' ' && schedule.back() != ' ' && schedule.find("  ") == std::string::npos,
      "none of them is empty");
  fuzz::Check(schedule.size() < kCronsLimit, "it is short enough for cron");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto parts = fuzz::Parts(data, size, 3);
  const auto resolved = hos_linux::ResolveSchedule(parts[2], parts[0], parts[1]);
  if (!resolved) return 0;
  CheckPlain(*resolved);
  fuzz::Check(resolved == hos_linux::ResolveSchedule(parts[2], parts[0], parts[1]),
              "one device and job resolve to one schedule");
  if (resolved->size() <= kLongestThatIsRead) {
    fuzz::Check(hos_linux::ResolveSchedule(*resolved, "another", "job") == resolved,
                "a resolved schedule resolves to itself");
  }
  return 0;
}
