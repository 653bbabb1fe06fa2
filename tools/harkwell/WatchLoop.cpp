#include "tools/harkwell/WatchLoop.h"

#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>

#include "HarkwellFoundation/Platform/MainRunLoop.h"

namespace harkwell::cli {
namespace {

using Clock = std::chrono::steady_clock;

// Where the signal handler writes; -1 while no StopSignals is alive.
std::atomic<int> gSignalPipe{-1};

extern "C" void WriteSignalByte(int) {
  const int saved = errno;
  const int fd = gSignalPipe.load();
  const char byte = 1;
  if (fd >= 0) [[maybe_unused]]
    const ssize_t written = write(fd, &byte, 1);
  errno = saved;
}

// Milliseconds until `when`, rounded up so the loop never wakes just before it; -1 for never.
int TimeoutUntil(std::optional<Clock::time_point> when) {
  if (!when) return -1;
  const auto left = *when - Clock::now();
  if (left <= Clock::duration::zero()) return 0;
  const auto millis = std::chrono::ceil<std::chrono::milliseconds>(left).count();
  return static_cast<int>(std::min<std::int64_t>(millis, 60'000));
}

std::optional<Clock::time_point> Earliest(std::optional<Clock::time_point> a,
                                          std::optional<Clock::time_point> b) {
  if (!a) return b;
  if (!b) return a;
  return std::min(*a, *b);
}

// With the barrier passed: starts the scenario's clock the first time, then applies the next step
// if it is due and posts a barrier behind it. Returns whether the watch has reached its end.
bool AdvanceScenario(const WatchLoopSettings& settings, Clock::time_point now) {
  ScenarioPlayer* scenario = settings.scenario;
  if (scenario == nullptr) return false;
  if (!scenario->started()) scenario->start(now);
  if (scenario->applyNextIfDue(now)) {
    settings.barrier.post();
    return false;
  }
  return settings.endAfterScenario && scenario->finished();
}

}  // namespace

StopSignals::StopSignals() {
  if (!pipe_.isValid()) return;
  gSignalPipe.store(pipe_.writeFd());
  struct sigaction action {};
  action.sa_handler = WriteSignalByte;
  sigemptyset(&action.sa_mask);
  // No SA_RESTART: a wait under way returns at once and the loop sees the byte.
  action.sa_flags = 0;
  installed_ =
      sigaction(SIGINT, &action, nullptr) == 0 && sigaction(SIGTERM, &action, nullptr) == 0;
}

StopSignals::~StopSignals() {
  if (installed_) {
    signal(SIGINT, SIG_DFL);
    signal(SIGTERM, SIG_DFL);
  }
  gSignalPipe.store(-1);
}

void RunWatchLoop(const WatchLoopSettings& settings) {
  MainRunLoop& loop = MainRunLoop::shared();
  const int loopFd = loop.fileDescriptor();
  QueueBarrier& barrier = settings.barrier;
  for (;;) {
    const auto now = Clock::now();
    if (settings.deadline && now >= *settings.deadline) return;
    if (!barrier.pending() && AdvanceScenario(settings, now)) return;

    // The output is polled for nothing: poll() still reports POLLERR or POLLHUP on it once the
    // reader of a pipe or socket has gone (POLLNVAL when it is not open at all), so a watch with
    // nothing to print ends as soon as its reader does, not at its next line. A negative
    // descriptor is skipped by poll(), which leaves the barrier out while none is pending.
    pollfd descriptors[] = {{settings.signals.fd(), POLLIN, 0},
                            {settings.stop.fd(), POLLIN, 0},
                            {settings.outputFd, 0, 0},
                            {barrier.pending() ? barrier.fd() : -1, POLLIN, 0},
                            {loopFd, POLLIN, 0}};
    constexpr nfds_t kWithoutLoop = 4;
    // While a barrier is pending no step may be applied, so only its pipe can move the scenario.
    const auto nextStep = settings.scenario != nullptr && !barrier.pending()
                              ? settings.scenario->nextDue()
                              : std::nullopt;
    const auto wakeAt = Earliest(settings.deadline, nextStep);
    if (loopFd >= 0) {
      const int ready = poll(descriptors, kWithoutLoop + 1, TimeoutUntil(wakeAt));
      if (ready < 0 && errno != EINTR) return;
    } else {
      // A run loop without a descriptor (macOS's CFRunLoop) runs itself until a pipe is readable,
      // the output has gone or the next due time comes.
      const int slice = TimeoutUntil(wakeAt);
      loop.runUntil([&] { return poll(descriptors, kWithoutLoop, 0) > 0; },
                    std::chrono::milliseconds(slice < 0 ? 60'000 : slice));
      poll(descriptors, kWithoutLoop, 0);
    }
    // Ctrl-C, a request from a callback that could not print, or a reader that has gone: each ends
    // the watch the same way.
    if (descriptors[0].revents != 0 || descriptors[1].revents != 0 || descriptors[2].revents != 0) {
      return;
    }
    if (descriptors[3].revents != 0) barrier.collect();
    if (loopFd >= 0 && descriptors[4].revents != 0) loop.performDueWork();
  }
}

}  // namespace harkwell::cli
