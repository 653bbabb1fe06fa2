// Lengths of time the harkwell program reads as a number of seconds: `watch --duration` and a
// scenario step's "at". Both are checked against the same bounds before use, so turning them into
// a steady-clock duration can neither overflow nor meet a NaN.
#pragma once

#include <algorithm>
#include <chrono>
#include <cmath>

namespace harkwell::cli {

// The longest time either may be: about 116 days, far more than any watch or scenario needs, and
// small enough that its nanoseconds fit any steady clock's count.
constexpr long long kMaxWholeSeconds = 10'000'000;
constexpr double kMaxSeconds = kMaxWholeSeconds;

// `seconds` as a steady-clock duration, rounded to the nearest nanosecond. Values outside 0 to
// kMaxSeconds (which the callers have already refused) are brought within them, NaN to 0.
inline std::chrono::steady_clock::duration SecondsToDuration(double seconds) {
  const double bounded = std::isnan(seconds) ? 0 : std::clamp(seconds, 0.0, kMaxSeconds);
  return std::chrono::duration_cast<std::chrono::steady_clock::duration>(
      std::chrono::nanoseconds(std::llround(bounded * 1e9)));
}

}  // namespace harkwell::cli
