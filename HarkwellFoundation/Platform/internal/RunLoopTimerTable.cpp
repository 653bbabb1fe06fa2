#include "HarkwellFoundation/Platform/internal/RunLoopTimerTable.h"

#include <algorithm>
#include <atomic>
#include <cassert>
#include <utility>

#include "HarkwellFoundation/Platform/DispatchQueue.h"
#include "HarkwellFoundation/Platform/internal/RunLoopTimerSchedule.h"

namespace harkwell {

// The handle a caller holds; the table keeps its fire date and action.
class RunLoopTimerTable::Timer final : public RunLoopTimer {
 public:
  Timer(RunLoopTimerTable& table, double interval, double tolerance)
      : table_(table), interval_(interval), tolerance_(tolerance) {}

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
  std::atomic<bool> valid_{true};
};

RunLoopTimerTable::RunLoopTimerTable(std::function<void()> changed)
    : changed_(std::move(changed)) {}

RunLoopTimerTable::~RunLoopTimerTable() = default;

std::shared_ptr<RunLoopTimer> RunLoopTimerTable::schedule(double interval, double tolerance,
                                                          std::function<void()> action) {
  auto timer = std::make_shared<Timer>(*this, interval, tolerance);
  {
    MutexLock lock(mutex_);
    entries_.push_back(Entry{timer, nowLocked() + SecondsToDuration(interval), std::move(action)});
  }
  changed_();
  return timer;
}

void RunLoopTimerTable::invalidate(Timer& timer) {
  // It goes at the end, unlocked: its action may hold the last reference to the timer's target,
  // and its handle the last reference to the timer.
  std::optional<Entry> unlisted;
  {
    MutexLock lock(mutex_);
    if (!timer.valid_.exchange(false)) return;
    const auto listed = std::find_if(entries_.begin(), entries_.end(), [&](const Entry& entry) {
      return entry.timer.get() == &timer;
    });
    if (listed != entries_.end()) {
      unlisted = std::move(*listed);
      entries_.erase(listed);
    }
  }
}

void RunLoopTimerTable::fireDueTimers() {
  std::vector<std::pair<std::shared_ptr<Timer>, std::function<void()>>> due;
  {
    MutexLock lock(mutex_);
    const auto now = nowLocked();
    for (auto& entry : entries_) {
      if (entry.fireDate > now) continue;
      entry.fireDate = NextFireDateAfter(entry.fireDate, entry.timer->interval_, now);
      due.emplace_back(entry.timer, entry.action);
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
  for (const auto& entry : entries_) {
    if (!earliest || entry.fireDate < earliest->date) {
      earliest = WakeUp{entry.fireDate, entry.timer->tolerance_};
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
      for (auto& entry : entries_) entry.fireDate += shift;
    }
    manualClock_ = false;
  }
  changed_();
}

std::size_t RunLoopTimerTable::count() const {
  MutexLock lock(mutex_);
  return entries_.size();
}

RunLoopTimerTable::Clock::time_point RunLoopTimerTable::nowLocked() const {
  return manualClock_ ? manualNow_ : Clock::now();
}

}  // namespace harkwell
