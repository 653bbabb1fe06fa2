// The main run loop on Linux. One epoll descriptor watches an eventfd (main-queue work was posted,
// the clock moved, stop was asked) and a timerfd armed for the earliest timer; that epoll
// descriptor is what fileDescriptor() offers to programs with their own loop.
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cassert>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <deque>
#include <mutex>
#include <vector>

#include "HarkwellFoundation/Platform/DispatchQueue.h"
#include "HarkwellFoundation/Platform/MainRunLoop.h"
#include "HarkwellFoundation/Platform/internal/RunLoopTimerSchedule.h"

namespace harkwell {
namespace {

using Clock = std::chrono::steady_clock;

class LinuxMainRunLoop;

class LinuxRunLoopTimer final : public RunLoopTimer {
 public:
  LinuxRunLoopTimer(LinuxMainRunLoop& loop, double interval, double tolerance,
                    Clock::time_point fireDate, std::function<void()> action)
      : loop_(loop),
        interval_(interval),
        tolerance_(tolerance),
        fireDate_(fireDate),
        action_(std::move(action)) {}

  double interval() const override { return interval_; }
  double tolerance() const override { return tolerance_; }
  bool isValid() const override { return valid_.load(std::memory_order_acquire); }
  void invalidate() override;

 private:
  friend class LinuxMainRunLoop;
  LinuxMainRunLoop& loop_;
  const double interval_;
  const double tolerance_;
  // Guarded by the loop's mutex.
  Clock::time_point fireDate_;
  std::function<void()> action_;
  std::atomic<bool> valid_{true};
};

class MainDispatchQueue final : public DispatchQueue {
 public:
  explicit MainDispatchQueue(LinuxMainRunLoop& loop)
      : DispatchQueue("com.harkwell.main-thread"), loop_(loop) {}
  void async(Work work) override;
  void sync(Work work) override;
  void runItem(const Work& work) const {
    CurrentQueueScope scope(this);
    work();
  }

 private:
  LinuxMainRunLoop& loop_;
};

class LinuxMainRunLoop final : public MainRunLoop {
 public:
  LinuxMainRunLoop() {
    epollFd_ = epoll_create1(EPOLL_CLOEXEC);
    eventFd_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    timerFd_ = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK);
    if (epollFd_ < 0 || eventFd_ < 0 || timerFd_ < 0) std::abort();
    for (int fd : {eventFd_, timerFd_}) {
      epoll_event event{};
      event.events = EPOLLIN;
      event.data.fd = fd;
      if (epoll_ctl(epollFd_, EPOLL_CTL_ADD, fd, &event) != 0) std::abort();
    }
    mainQueue_ = std::make_shared<MainDispatchQueue>(*this);
  }

  const std::shared_ptr<DispatchQueue>& mainQueue() const { return mainQueue_; }

  void postMainWork(DispatchQueue::Work work) {
    {
      std::lock_guard lock(mutex_);
      mainWork_.push_back(std::move(work));
    }
    wake();
  }

  std::shared_ptr<RunLoopTimer> scheduleRepeatingTimer(double interval, double tolerance,
                                                       std::function<void()> action) override {
    std::shared_ptr<LinuxRunLoopTimer> timer;
    {
      std::lock_guard lock(mutex_);
      timer = std::make_shared<LinuxRunLoopTimer>(
          *this, interval, tolerance, nowLocked() + SecondsToDuration(interval), std::move(action));
      timers_.push_back(timer);
    }
    wake();
    return timer;
  }

  void invalidate(LinuxRunLoopTimer& timer) {
    std::function<void()> released;
    {
      std::lock_guard lock(mutex_);
      if (!timer.valid_.exchange(false)) return;
      released = std::move(timer.action_);
      std::erase_if(timers_, [&](const auto& scheduled) { return scheduled.get() == &timer; });
    }
    // `released` may hold the last reference to the timer's target; it goes here, unlocked.
  }

  void run() override {
    stopRequested_.store(false);
    while (!stopRequested_.load()) {
      waitForWork(-1);
      performDueWork();
    }
  }

  void stop() override {
    stopRequested_.store(true);
    wake();
  }

  bool runUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout) override {
    const auto deadline = Clock::now() + timeout;
    for (;;) {
      performDueWork();
      if (done()) return true;
      const auto now = Clock::now();
      if (now >= deadline) return false;
      // `done` may turn true because of another thread, which does not wake the descriptor, so
      // the wait is sliced.
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - now);
      waitForWork(static_cast<int>(std::clamp<std::int64_t>(left.count(), 0, 2)));
    }
  }

  int fileDescriptor() const override { return epollFd_; }

  void performDueWork() override {
    drain(eventFd_);
    drain(timerFd_);

    std::deque<DispatchQueue::Work> work;
    {
      std::lock_guard lock(mutex_);
      work.swap(mainWork_);
    }
    for (auto& item : work) {
      static_cast<MainDispatchQueue&>(*mainQueue_).runItem(item);
      item = nullptr;
    }

    fireDueTimers();
    rearmTimerFd();
  }

  void useManualClock() override {
    {
      std::lock_guard lock(mutex_);
      if (!manualClock_) manualNow_ = Clock::now();
      manualClock_ = true;
    }
    wake();
  }

  void advanceManualClock(std::chrono::nanoseconds delta) override {
    {
      std::lock_guard lock(mutex_);
      manualNow_ += delta;
    }
    wake();
  }

  void useSystemClock() override {
    {
      std::lock_guard lock(mutex_);
      if (manualClock_) {
        // Keep each timer's remaining time when the clock changes under it.
        const auto shift = Clock::now() - manualNow_;
        for (auto& timer : timers_) timer->fireDate_ += shift;
      }
      manualClock_ = false;
    }
    wake();
  }

  std::size_t scheduledTimerCount() const override {
    std::lock_guard lock(mutex_);
    return timers_.size();
  }

 private:
  Clock::time_point nowLocked() const { return manualClock_ ? manualNow_ : Clock::now(); }

  void wake() const {
    const std::uint64_t one = 1;
    [[maybe_unused]] ssize_t ignored = ::write(eventFd_, &one, sizeof one);
  }

  static void drain(int fd) {
    std::uint64_t value;
    while (::read(fd, &value, sizeof value) > 0) {
    }
  }

  void waitForWork(int timeoutMilliseconds) const {
    epoll_event event{};
    while (epoll_wait(epollFd_, &event, 1, timeoutMilliseconds) < 0 && errno == EINTR) {
    }
  }

  void fireDueTimers() {
    std::vector<std::pair<std::shared_ptr<LinuxRunLoopTimer>, std::function<void()>>> due;
    {
      std::lock_guard lock(mutex_);
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

  void rearmTimerFd() {
    itimerspec due{};
    {
      std::lock_guard lock(mutex_);
      if (!manualClock_ && !timers_.empty()) {
        auto earliest = timers_.front()->fireDate_;
        for (auto& timer : timers_) earliest = std::min(earliest, timer->fireDate_);
        auto wait = std::chrono::duration_cast<std::chrono::nanoseconds>(earliest - Clock::now());
        if (wait.count() <= 0) wait = std::chrono::nanoseconds(1);
        due.it_value.tv_sec = static_cast<time_t>(wait.count() / 1'000'000'000);
        due.it_value.tv_nsec = static_cast<long>(wait.count() % 1'000'000'000);
      }
    }
    timerfd_settime(timerFd_, 0, &due, nullptr);
  }

  mutable std::mutex mutex_;
  std::deque<DispatchQueue::Work> mainWork_;
  std::vector<std::shared_ptr<LinuxRunLoopTimer>> timers_;
  bool manualClock_ = false;
  Clock::time_point manualNow_{};
  std::atomic<bool> stopRequested_{false};
  int epollFd_ = -1;
  int eventFd_ = -1;
  int timerFd_ = -1;
  std::shared_ptr<DispatchQueue> mainQueue_;
};

void LinuxRunLoopTimer::invalidate() {
  // Debug builds catch a caller that skipped the hop to the main thread.
  assert(IsMainThread() && "run loop timers are invalidated on the main thread");
  loop_.invalidate(*this);
}

void MainDispatchQueue::async(Work work) {
  loop_.postMainWork(std::move(work));
}

void MainDispatchQueue::sync(Work work) {
  if (IsMainThread()) {
    runItem(work);
    return;
  }
  asyncAndWait(std::move(work));
}

LinuxMainRunLoop& sharedLoop() {
  // Never destroyed: timers and queued work may still refer to it while the process exits.
  static auto* loop = new LinuxMainRunLoop;
  return *loop;
}

}  // namespace

MainRunLoop& MainRunLoop::shared() {
  return sharedLoop();
}

const std::shared_ptr<DispatchQueue>& DispatchQueue::main() {
  return sharedLoop().mainQueue();
}

bool IsMainThread() {
  return gettid() == getpid();
}

}  // namespace harkwell
