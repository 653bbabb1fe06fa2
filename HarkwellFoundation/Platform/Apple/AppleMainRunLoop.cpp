// The main run loop on Apple is the main thread's CFRunLoop. It serves libdispatch's main queue
// by itself; timers are CFRunLoopTimers added to it in the common modes, so they fire in every
// mode the loop runs in (also while a menu is tracked or a window resized).
//
// The manual clock for tests: while it is on, every CFRunLoopTimer is parked in the far future
// and each timer keeps its next fire date on the manual clock instead; advancing the clock
// signals a run-loop source, and the loop fires the due timers when it next runs (as do
// runUntil() and performDueWork() directly). Going back to the system clock keeps each timer's
// remaining time.
#include <CoreFoundation/CoreFoundation.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <mutex>
#include <utility>
#include <vector>

#include "HarkwellFoundation/Platform/MainRunLoop.h"
#include "HarkwellFoundation/Platform/internal/RunLoopTimerSchedule.h"

namespace harkwell {
namespace {

using ManualClock = std::chrono::steady_clock;

// Where a timer waits while the manual clock is on: never, in practice.
constexpr CFTimeInterval kParkedDelay = 1.0e10;
// The longest slice runUntil() waits in the loop before it checks its condition again; the
// condition may turn true on another thread, which does not wake the loop.
constexpr CFTimeInterval kRunUntilSlice = 0.002;

double durationToSeconds(ManualClock::duration duration) {
  return std::chrono::duration<double>(duration).count();
}

class AppleMainRunLoop;

class AppleRunLoopTimer final : public RunLoopTimer {
 public:
  AppleRunLoopTimer(AppleMainRunLoop& loop, double interval, double tolerance,
                    std::function<void()> action)
      : loop_(loop), interval_(interval), tolerance_(tolerance), action_(std::move(action)) {}
  ~AppleRunLoopTimer() override {
    if (cfTimer_) CFRelease(cfTimer_);
  }

  double interval() const override { return interval_; }
  double tolerance() const override { return tolerance_; }
  bool isValid() const override { return valid_.load(std::memory_order_acquire); }
  void invalidate() override;

 private:
  friend class AppleMainRunLoop;
  AppleMainRunLoop& loop_;
  const double interval_;
  const double tolerance_;
  // Set before the timer is published; released with this object.
  CFRunLoopTimerRef cfTimer_ = nullptr;
  // Guarded by the loop's mutex.
  std::function<void()> action_;
  ManualClock::time_point manualFireDate_{};
  std::atomic<bool> valid_{true};
};

class AppleMainRunLoop final : public MainRunLoop {
 public:
  AppleMainRunLoop() {
    CFRunLoopSourceContext context{};
    context.info = this;
    context.perform = [](void* info) {
      static_cast<AppleMainRunLoop*>(info)->fireDueManualTimers();
    };
    clockSource_ = CFRunLoopSourceCreate(kCFAllocatorDefault, 0, &context);
    // The source also keeps the loop's modes from being empty, so run() never returns on its own.
    CFRunLoopAddSource(CFRunLoopGetMain(), clockSource_, kCFRunLoopCommonModes);
  }

  std::shared_ptr<RunLoopTimer> scheduleRepeatingTimer(double interval, double tolerance,
                                                       std::function<void()> action) override {
    auto timer = std::make_shared<AppleRunLoopTimer>(*this, interval, tolerance, std::move(action));
    std::weak_ptr<AppleRunLoopTimer> weakTimer = timer;
    AppleMainRunLoop* loop = this;
    {
      std::lock_guard lock(mutex_);
      const CFAbsoluteTime firstFire =
          CFAbsoluteTimeGetCurrent() + (manualClock_ ? kParkedDelay : interval);
      // The block holds the timer weakly: the loop's list keeps a valid timer alive, and an
      // invalidated one must not fire.
      void (^fire)(CFRunLoopTimerRef) = ^(CFRunLoopTimerRef) {
        if (auto firing = weakTimer.lock()) loop->fireFromRunLoop(*firing);
      };
      timer->cfTimer_ =
          CFRunLoopTimerCreateWithHandler(kCFAllocatorDefault, firstFire, interval, 0, 0, fire);
      CFRunLoopTimerSetTolerance(timer->cfTimer_, tolerance);
      timer->manualFireDate_ = manualNow_ + SecondsToDuration(interval);
      timers_.push_back(timer);
    }
    // Any thread may add a timer to the main thread's loop.
    CFRunLoopAddTimer(CFRunLoopGetMain(), timer->cfTimer_, kCFRunLoopCommonModes);
    return timer;
  }

  void invalidate(AppleRunLoopTimer& timer) {
    // Both go at the end, unlocked: `released` may hold the last reference to the timer's
    // target, and `unlisted` the last reference to the timer.
    std::shared_ptr<AppleRunLoopTimer> unlisted;
    std::function<void()> released;
    {
      std::lock_guard lock(mutex_);
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
    CFRunLoopTimerInvalidate(timer.cfTimer_);
  }

  void run() override {
    stopRequested_.store(false);
    while (!stopRequested_.load()) CFRunLoopRun();
  }

  void stop() override {
    stopRequested_.store(true);
    CFRunLoopStop(CFRunLoopGetMain());
  }

  bool runUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout) override {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
      fireDueManualTimers();
      if (done()) return true;
      const auto left = deadline - std::chrono::steady_clock::now();
      if (left <= std::chrono::steady_clock::duration::zero()) return false;
      CFRunLoopRunInMode(kCFRunLoopDefaultMode, std::min(durationToSeconds(left), kRunUntilSlice),
                         /*returnAfterSourceHandled=*/true);
    }
  }

  // Apple offers no descriptor for the main queue and the run loop's timers. Programs with their
  // own event loop on macOS already run the main CFRunLoop (Cocoa, Qt and GLib's macOS backend
  // all do), and that serves the main queue and these timers without any descriptor.
  int fileDescriptor() const override { return -1; }

  void performDueWork() override {
    fireDueManualTimers();
    // One pass that does not wait: the main queue's waiting work and the timers that are due.
    CFRunLoopRunInMode(kCFRunLoopDefaultMode, 0, /*returnAfterSourceHandled=*/false);
  }

  void useManualClock() override {
    std::lock_guard lock(mutex_);
    if (manualClock_) return;
    manualNow_ = ManualClock::now();
    const CFAbsoluteTime now = CFAbsoluteTimeGetCurrent();
    for (auto& timer : timers_) {
      const double remaining = std::max(0.0, CFRunLoopTimerGetNextFireDate(timer->cfTimer_) - now);
      timer->manualFireDate_ = manualNow_ + SecondsToDuration(remaining);
      CFRunLoopTimerSetNextFireDate(timer->cfTimer_, now + kParkedDelay);
    }
    manualClock_ = true;
  }

  void advanceManualClock(std::chrono::nanoseconds delta) override {
    {
      std::lock_guard lock(mutex_);
      manualNow_ += delta;
    }
    CFRunLoopSourceSignal(clockSource_);
    CFRunLoopWakeUp(CFRunLoopGetMain());
  }

  void useSystemClock() override {
    std::lock_guard lock(mutex_);
    if (!manualClock_) return;
    const CFAbsoluteTime now = CFAbsoluteTimeGetCurrent();
    for (auto& timer : timers_) {
      const double remaining = durationToSeconds(timer->manualFireDate_ - manualNow_);
      CFRunLoopTimerSetNextFireDate(timer->cfTimer_, now + std::max(0.0, remaining));
    }
    manualClock_ = false;
  }

  std::size_t scheduledTimerCount() const override {
    std::lock_guard lock(mutex_);
    return timers_.size();
  }

 private:
  // A CFRunLoopTimer fired. Parked timers do not fire, but one whose firing was already under way
  // when the manual clock came on is ignored as well.
  void fireFromRunLoop(AppleRunLoopTimer& timer) {
    std::function<void()> action;
    {
      std::lock_guard lock(mutex_);
      if (manualClock_ || !timer.isValid()) return;
      action = timer.action_;
    }
    action();
  }

  // Main thread. Fires each timer whose manual fire date has come, once: like a run-loop timer,
  // missed firings are skipped, not replayed.
  void fireDueManualTimers() {
    std::vector<std::pair<std::shared_ptr<AppleRunLoopTimer>, std::function<void()>>> due;
    {
      std::lock_guard lock(mutex_);
      if (!manualClock_) return;
      for (auto& timer : timers_) {
        if (timer->manualFireDate_ > manualNow_) continue;
        timer->manualFireDate_ =
            NextFireDateAfter(timer->manualFireDate_, timer->interval_, manualNow_);
        due.emplace_back(timer, timer->action_);
      }
    }
    for (auto& [timer, action] : due) {
      // An earlier action of this pass may have invalidated a later timer.
      if (timer->isValid()) action();
    }
  }

  mutable std::mutex mutex_;
  std::vector<std::shared_ptr<AppleRunLoopTimer>> timers_;
  bool manualClock_ = false;
  ManualClock::time_point manualNow_ = ManualClock::now();
  std::atomic<bool> stopRequested_{false};
  CFRunLoopSourceRef clockSource_ = nullptr;
};

void AppleRunLoopTimer::invalidate() {
  loop_.invalidate(*this);
}

}  // namespace

MainRunLoop& MainRunLoop::shared() {
  // Never destroyed: timers and queued work may still refer to it while the process exits.
  static auto* loop = new AppleMainRunLoop;
  return *loop;
}

}  // namespace harkwell
