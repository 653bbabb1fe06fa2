// Timer arithmetic shared by the run loops: seconds as a clock duration, and the step to a
// repeating timer's next fire date.
#pragma once

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>

namespace harkwell {

inline std::chrono::nanoseconds SecondsToDuration(double seconds) {
  return std::chrono::nanoseconds(static_cast<std::int64_t>(std::llround(seconds * 1e9)));
}

// The first fire date after `now`, stepping from `fireDate` by `interval` seconds. Like a
// run-loop timer, missed firings are skipped, not replayed; the step is at least 100 µs so a
// zero interval cannot spin.
template <class TimePoint>
TimePoint NextFireDateAfter(TimePoint fireDate, double interval, TimePoint now) {
  const auto period = std::max(SecondsToDuration(interval),
                               std::chrono::nanoseconds(std::chrono::microseconds(100)));
  while (fireDate <= now) fireDate += period;
  return fireDate;
}

}  // namespace harkwell
