// The repeating timers of the main run loop and the clock they fire by, written once for every
// platform. A platform's loop only has to wake up when the next fire date comes (a timerfd on
// Linux, one CFRunLoopTimer on Apple) and call fireDueTimers() on the main thread.
//
// The clock is the system's steady clock. Tests switch to a manual clock that stands still until
// they move it; timers then fire by that clock alone, and nextSystemWakeUp() has nothing for the
// platform to wait for. Going back to the system clock keeps each timer's remaining time.
//
// Threads: timers are scheduled and the clock is switched or moved from any thread;
// fireDueTimers() and RunLoopTimer::invalidate() run on the main thread. `changed` runs on the
// thread that made the change, never under the table's lock. The table must outlive its timers
// (the main run loop's table lives as long as the process).
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "HarkwellFoundation/Platform/MainRunLoop.h"
#include "HarkwellFoundation/Platform/Mutex.h"

namespace harkwell {

class RunLoopTimerTable {
 public:
  using Clock = std::chrono::steady_clock;

  // `changed` is called after every change that may move the next fire date or the clock.
  explicit RunLoopTimerTable(std::function<void()> changed);
  RunLoopTimerTable(const RunLoopTimerTable&) = delete;
  RunLoopTimerTable& operator=(const RunLoopTimerTable&) = delete;
  ~RunLoopTimerTable();

  // A repeating timer whose first firing comes one interval from now by the table's clock.
  std::shared_ptr<RunLoopTimer> schedule(double interval, double tolerance,
                                         std::function<void()> action) HARKWELL_EXCLUDES(mutex_);

  // Main thread. Runs the action of every timer whose fire date has come, once each: missed
  // firings are skipped, not replayed.
  void fireDueTimers() HARKWELL_EXCLUDES(mutex_);

  // When the platform should next wake its loop: the earliest fire date on the system clock and
  // that timer's tolerance. None while no timer is scheduled or while the manual clock runs.
  struct WakeUp {
    Clock::time_point date;
    double tolerance = 0;
  };
  std::optional<WakeUp> nextSystemWakeUp() const HARKWELL_EXCLUDES(mutex_);

  // The manual clock for tests: after useManualClock() time stands still until
  // advanceManualClock() moves it; useSystemClock() goes back.
  void useManualClock() HARKWELL_EXCLUDES(mutex_);
  void advanceManualClock(std::chrono::nanoseconds delta) HARKWELL_EXCLUDES(mutex_);
  void useSystemClock() HARKWELL_EXCLUDES(mutex_);

  // How many valid timers are scheduled.
  std::size_t count() const HARKWELL_EXCLUDES(mutex_);

 private:
  class Timer;
  // A scheduled timer's place in the table: when it fires next and what it runs.
  struct Entry {
    std::shared_ptr<Timer> timer;
    Clock::time_point fireDate;
    std::function<void()> action;
  };

  void invalidate(Timer& timer) HARKWELL_EXCLUDES(mutex_);
  Clock::time_point nowLocked() const HARKWELL_REQUIRES(mutex_);

  const std::function<void()> changed_;
  mutable Mutex mutex_;
  std::vector<Entry> entries_ HARKWELL_GUARDED_BY(mutex_);
  bool manualClock_ HARKWELL_GUARDED_BY(mutex_) = false;
  Clock::time_point manualNow_ HARKWELL_GUARDED_BY(mutex_){};
};

}  // namespace harkwell
