// When the V4L2 service looks at the cameras' streams again. A stream starts after its node was
// opened, with no file event of its own, so after an open the service looks often for a while,
// then less and less often, and stops once no node is held:
//
//   - after an open: every quick delay for the quick span (a program that opens a camera to use it
//     lists its formats and controls and starts streaming within that time, and its stream is
//     then seen within one quick delay);
//   - then after twice the previous delay each time, up to the longest delay, which repeats while
//     some process holds a node;
//   - once the checks after the latest open have run out and no node is held: no check at all.
//
// The checks after an open run even when no holder can be seen (the opener may be a process whose
// descriptors this one cannot read; its stream shows in sysfs only).
//
// Owned by the V4L2 service's background thread; not thread-safe.
#pragma once

#include <chrono>
#include <cstddef>
#include <optional>

namespace harkwell::v4l2 {

class StreamCheckSchedule {
 public:
  StreamCheckSchedule(std::chrono::nanoseconds quickDelay, std::chrono::nanoseconds quickSpan,
                      std::chrono::nanoseconds longestDelay);

  // A node was opened, or a media server's graph changed (the camera's own signals may follow a
  // moment later): the checks after an open start again.
  void restart() { checksSinceOpen_ = 0; }

  // Called after each check: how long until the next one; absent when none is due until a node
  // is opened again.
  std::optional<std::chrono::nanoseconds> next(bool someoneHoldsANode);

  // How many checks follow an open whether or not a holder is seen. Fixed at construction, so any
  // thread may ask.
  std::size_t checksAfterAnOpen() const { return quickChecks_ + growingChecks_; }

 private:
  const std::chrono::nanoseconds quickDelay_;
  const std::chrono::nanoseconds longestDelay_;
  std::size_t quickChecks_ = 1;
  std::size_t growingChecks_ = 0;  // from twice the quick delay up to the longest
  std::size_t checksSinceOpen_;
};

}  // namespace harkwell::v4l2
