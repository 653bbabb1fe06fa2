#include "HarkwellFoundation/Platform/Linux/V4L2/StreamCheckSchedule.h"

#include <algorithm>

namespace harkwell::v4l2 {

StreamCheckSchedule::StreamCheckSchedule(std::chrono::nanoseconds quickDelay,
                                         std::chrono::nanoseconds quickSpan,
                                         std::chrono::nanoseconds longestDelay)
    : quickDelay_(std::max(quickDelay, std::chrono::nanoseconds(1))),
      longestDelay_(std::max(longestDelay, quickDelay_)) {
  quickChecks_ = std::max<std::size_t>(1, static_cast<std::size_t>(quickSpan / quickDelay_));
  for (auto delay = quickDelay_; delay < longestDelay_; delay *= 2) ++growingChecks_;
  // Nothing was opened yet: no checks are owed.
  checksSinceOpen_ = checksAfterAnOpen();
}

std::optional<std::chrono::nanoseconds> StreamCheckSchedule::next(bool someoneHoldsANode) {
  if (!someoneHoldsANode && checksSinceOpen_ >= checksAfterAnOpen()) return std::nullopt;
  auto delay = quickDelay_;
  for (std::size_t i = quickChecks_; i <= checksSinceOpen_ && delay < longestDelay_; ++i) {
    delay *= 2;
  }
  if (checksSinceOpen_ < checksAfterAnOpen()) ++checksSinceOpen_;
  return std::min(delay, longestDelay_);
}

}  // namespace harkwell::v4l2
