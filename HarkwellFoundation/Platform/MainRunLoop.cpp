// What every platform's main run loop shares: its timers and their clock.
#include "HarkwellFoundation/Platform/MainRunLoop.h"

#include <utility>

#include "HarkwellFoundation/Platform/internal/RunLoopTimerTable.h"

namespace harkwell {

MainRunLoop::MainRunLoop()
    : timers_(std::make_unique<RunLoopTimerTable>([this] { timersChanged(); })) {}

MainRunLoop::~MainRunLoop() = default;

std::shared_ptr<RunLoopTimer> MainRunLoop::scheduleRepeatingTimer(double interval, double tolerance,
                                                                  std::function<void()> action) {
  return timers_->schedule(interval, tolerance, std::move(action));
}

void MainRunLoop::useManualClockForTesting() {
  timers_->useManualClock();
}

void MainRunLoop::advanceManualClockForTesting(std::chrono::nanoseconds delta) {
  timers_->advanceManualClock(delta);
}

void MainRunLoop::useSystemClockForTesting() {
  timers_->useSystemClock();
}

std::size_t MainRunLoop::scheduledTimerCountForTesting() const {
  return timers_->count();
}

}  // namespace harkwell
