// The main run loop on Apple is the main thread's CFRunLoop. It serves libdispatch's main queue
// by itself. The timers and their clock are the shared RunLoopTimerTable; one CFRunLoopTimer,
// added in the common modes, wakes the loop for the earliest of them, so they fire in every mode
// the loop runs in (also while a menu is tracked or a window resized). A change to the table from
// any thread signals a run-loop source, and the main thread then fires what is due and re-arms
// that timer. While the manual clock runs the timer is parked far in the future.
#include <CoreFoundation/CoreFoundation.h>

#include <algorithm>
#include <atomic>
#include <chrono>

#include "HarkwellFoundation/Platform/MainRunLoop.h"
#include "HarkwellFoundation/Platform/internal/RunLoopTimerTable.h"

namespace harkwell {
namespace {

// Where the wake-up timer waits while no timer is due by the system clock: never, in practice.
constexpr CFTimeInterval kParkedDelay = 1.0e10;
// The longest slice runUntil() waits in the loop before it checks its condition again; the
// condition may turn true on another thread, which does not wake the loop.
constexpr CFTimeInterval kRunUntilSlice = 0.002;

double durationToSeconds(std::chrono::steady_clock::duration duration) {
  return std::chrono::duration<double>(duration).count();
}

class AppleMainRunLoop final : public MainRunLoop {
 public:
  AppleMainRunLoop() {
    CFRunLoopSourceContext context{};
    context.info = this;
    context.perform = [](void* info) { static_cast<AppleMainRunLoop*>(info)->serviceTimers(); };
    changeSource_ = CFRunLoopSourceCreate(kCFAllocatorDefault, 0, &context);
    // The source also keeps the loop's modes from being empty, so run() never returns on its own.
    CFRunLoopAddSource(CFRunLoopGetMain(), changeSource_, kCFRunLoopCommonModes);

    AppleMainRunLoop* loop = this;
    void (^fire)(CFRunLoopTimerRef) = ^(CFRunLoopTimerRef) {
      loop->serviceTimers();
    };
    wakeUpTimer_ = CFRunLoopTimerCreateWithHandler(
        kCFAllocatorDefault, CFAbsoluteTimeGetCurrent() + kParkedDelay, kParkedDelay, 0, 0, fire);
    CFRunLoopAddTimer(CFRunLoopGetMain(), wakeUpTimer_, kCFRunLoopCommonModes);
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
      serviceTimers();
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
    serviceTimers();
    // One pass that does not wait: the main queue's waiting work and anything else that is due.
    CFRunLoopRunInMode(kCFRunLoopDefaultMode, 0, /*returnAfterSourceHandled=*/false);
  }

 protected:
  void timersChanged() override {
    CFRunLoopSourceSignal(changeSource_);
    CFRunLoopWakeUp(CFRunLoopGetMain());
  }

 private:
  // Main thread. Fires the timers that are due and sets the wake-up timer for the next one.
  void serviceTimers() {
    timers().fireDueTimers();
    const CFAbsoluteTime now = CFAbsoluteTimeGetCurrent();
    CFAbsoluteTime fireDate = now + kParkedDelay;
    double tolerance = 0;
    if (const auto next = timers().nextSystemWakeUp()) {
      fireDate =
          now + std::max(0.0, durationToSeconds(next->date - std::chrono::steady_clock::now()));
      tolerance = next->tolerance;
    }
    CFRunLoopTimerSetTolerance(wakeUpTimer_, tolerance);
    CFRunLoopTimerSetNextFireDate(wakeUpTimer_, fireDate);
  }

  std::atomic<bool> stopRequested_{false};
  CFRunLoopSourceRef changeSource_ = nullptr;
  CFRunLoopTimerRef wakeUpTimer_ = nullptr;
};

}  // namespace

MainRunLoop& MainRunLoop::shared() {
  // Never destroyed: timers and queued work may still refer to it while the process exits.
  static auto* loop = new AppleMainRunLoop;
  return *loop;
}

}  // namespace harkwell
