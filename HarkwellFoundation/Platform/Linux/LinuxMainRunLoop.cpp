// The main run loop on Linux. One epoll descriptor watches an eventfd (main-queue work was posted,
// the timers or their clock changed, stop was asked) and a timerfd armed for the earliest timer;
// that epoll descriptor is what fileDescriptor() offers to programs with their own loop. The timers
// themselves and their clock are the shared RunLoopTimerTable.
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <deque>

#include "HarkwellFoundation/Platform/DispatchQueue.h"
#include "HarkwellFoundation/Platform/MainRunLoop.h"
#include "HarkwellFoundation/Platform/Mutex.h"
#include "HarkwellFoundation/Platform/internal/RunLoopTimerTable.h"

namespace harkwell {
namespace {

using Clock = std::chrono::steady_clock;

class LinuxMainRunLoop;

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
      MutexLock lock(mutex_);
      mainWork_.push_back(std::move(work));
    }
    wake();
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
      MutexLock lock(mutex_);
      work.swap(mainWork_);
    }
    for (auto& item : work) {
      static_cast<MainDispatchQueue&>(*mainQueue_).runItem(item);
      item = nullptr;
    }

    timers().fireDueTimers();
    rearmTimerFd();
  }

 protected:
  void timersChanged() override { wake(); }

 private:
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

  // Arms the timerfd for the next timer by the system clock, or disarms it (no timer, or the
  // manual clock, whose moves wake the loop through the eventfd).
  void rearmTimerFd() {
    itimerspec due{};
    if (const auto next = timers().nextSystemWakeUp()) {
      auto wait = std::chrono::duration_cast<std::chrono::nanoseconds>(next->date - Clock::now());
      if (wait.count() <= 0) wait = std::chrono::nanoseconds(1);
      due.it_value.tv_sec = static_cast<time_t>(wait.count() / 1'000'000'000);
      due.it_value.tv_nsec = static_cast<long>(wait.count() % 1'000'000'000);
    }
    timerfd_settime(timerFd_, 0, &due, nullptr);
  }

  Mutex mutex_;
  std::deque<DispatchQueue::Work> mainWork_ HARKWELL_GUARDED_BY(mutex_);
  std::atomic<bool> stopRequested_{false};
  int epollFd_ = -1;
  int eventFd_ = -1;
  int timerFd_ = -1;
  std::shared_ptr<DispatchQueue> mainQueue_;
};

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
