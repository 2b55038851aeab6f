// Schedules with drawn values, made into what the system's cron understands.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace hos_linux {

// Turns five schedule fields (minute, hour, day, month, weekday) into the same five with plain
// numbers, one blank between them. A field is a comma list of
//
//   *   */STEP   N   LOW-HIGH   LOW-HIGH/STEP   ~   LOW~   ~HIGH   LOW~HIGH
//
// where months and weekdays may be names (jan, sun; no matter the case). The tilde forms become one
// number of their range, which depends on the serial number, the job and the place in the schedule
// only, and over many devices falls on each number equally often. Sunday is 0 and 7, once.
// Nothing when the text is anything else: a number out of bounds, LOW above HIGH, `@daily`, a
// control character.
[[nodiscard]] std::optional<std::string> ResolveSchedule(std::string_view schedule,
                                                         std::string_view serial_number,
                                                         std::string_view job_name);

}  // namespace hos_linux
