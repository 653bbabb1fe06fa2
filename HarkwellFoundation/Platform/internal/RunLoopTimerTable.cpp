#include "HarkwellFoundation/Platform/internal/RunLoopTimerTable.h"

#include <algorithm>
#include <atomic>
#include <cassert>
#include <utility>

#include "HarkwellFoundation/Platform/DispatchQueue.h"
#include "HarkwellFoundation/Platform/internal/RunLoopTimerSchedule.h"

namespace harkwell {

class RunLoopTimerTable::Timer final : public RunLoopTimer {
 public:
  Timer(RunLoopTimerTable& table, double interval, double tolerance, Clock::time_point fireDate,
        std::function<void()> action)
      : table_(table),
        interval_(interval),
        tolerance_(tolerance),
        fireDate_(fireDate),
        action_(std::move(action)) {}

  double interval() const override { return interval_; }
  double tolerance() const override { return tolerance_; }
  bool isValid() const override { return valid_.load(std::memory_order_acquire); }
  void invalidate() override {
    // Debug builds catch a caller that skipped the hop to the main thread.
    assert(IsMainThread() && "run loop timers are invalidated on the main thread");
    table_.invalidate(*this);
  }

 private:
  friend class RunLoopTimerTable;
  RunLoopTimerTable& table_;
  const double interval_;
  const double tolerance_;
  Clock::time_point fireDate_ HARKWELL_GUARDED_BY(table_.mutex_);
  std::function<void()> action_ HARKWELL_GUARDED_BY(table_.mutex_);
  std::atomic<bool> valid_{true};
};

RunLoopTimerTable::RunLoopTimerTable(std::function<void()> changed)
    : changed_(std::move(changed)) {}

RunLoopTimerTable::~RunLoopTimerTable() = default;

std::shared_ptr<RunLoopTimer> RunLoopTimerTable::schedule(double interval, double tolerance,
                                                          std::function<void()> action) {
  std::shared_ptr<Timer> timer;
  {
    MutexLock lock(mutex_);
    timer = std::make_shared<Timer>(*this, interval, tolerance,
                                    nowLocked() + SecondsToDuration(interval), std::move(action));
    timers_.push_back(timer);
  }
  changed_();
  return timer;
}

void RunLoopTimerTable::invalidate(Timer& timer) {
  // Both go at the end, unlocked: `released` may hold the last reference to the timer's target,
  // and `unlisted` the last reference to the timer.
  std::shared_ptr<Timer> unlisted;
  std::function<void()> released;
  {
    MutexLock lock(mutex_);
    if (!timer.valid_.exchange(false)) return;
    released = std::move(timer.action_);
    const auto listed = std::find_if(timers_.begin(), timers_.end(), [&](const auto& scheduled) {
      return scheduled.get() == &timer;
    });
    if (listed != timers_.end()) {
      unlisted = std::move(*listed);
      timers_.erase(listed);
    }
  }
}

void RunLoopTimerTable::fireDueTimers() {
  std::vector<std::pair<std::shared_ptr<Timer>, std::function<void()>>> due;
  {
    MutexLock lock(mutex_);
    const auto now = nowLocked();
    for (auto& timer : timers_) {
      if (timer->fireDate_ > now) continue;
      timer->fireDate_ = NextFireDateAfter(timer->fireDate_, timer->interval_, now);
      due.emplace_back(timer, timer->action_);
    }
  }
  for (auto& [timer, action] : due) {
    // An earlier action of this pass may have invalidated a later timer.
    if (timer->isValid()) action();
  }
}

std::optional<RunLoopTimerTable::WakeUp> RunLoopTimerTable::nextSystemWakeUp() const {
  MutexLock lock(mutex_);
  if (manualClock_) return std::nullopt;
  std::optional<WakeUp> earliest;
  for (const auto& timer : timers_) {
    if (!earliest || timer->fireDate_ < earliest->date) {
      earliest = WakeUp{timer->fireDate_, timer->tolerance_};
    }
  }
  return earliest;
}

void RunLoopTimerTable::useManualClock() {
  {
    MutexLock lock(mutex_);
    if (!manualClock_) manualNow_ = Clock::now();
    manualClock_ = true;
  }
  changed_();
}

void RunLoopTimerTable::advanceManualClock(std::chrono::nanoseconds delta) {
  {
    MutexLock lock(mutex_);
    manualNow_ += delta;
  }
  changed_();
}

void RunLoopTimerTable::useSystemClock() {
  {
    MutexLock lock(mutex_);
    if (manualClock_) {
      // Keep each timer's remaining time when the clock changes under it.
      const auto shift = Clock::now() - manualNow_;
      for (auto& timer : timers_) timer->fireDate_ += shift;
    }
    manualClock_ = false;
  }
  changed_();
}

std::size_t RunLoopTimerTable::count() const {
  MutexLock lock(mutex_);
  return timers_.size();
}

RunLoopTimerTable::Clock::time_point RunLoopTimerTable::nowLocked() const {
  return manualClock_ ? manualNow_ : Clock::now();
}

}  // namespace harkwell
