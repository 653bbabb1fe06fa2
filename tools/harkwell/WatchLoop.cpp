#include "tools/harkwell/WatchLoop.h"

#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>

#include "HarkwellFoundation/Platform/MainRunLoop.h"

namespace harkwell::cli {
namespace {

using Clock = std::chrono::steady_clock;

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

}  // namespace

StopSignals::StopSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  if (pthread_sigmask(SIG_BLOCK, &signals, nullptr) != 0) return;
  fd_ = signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
  // Without the descriptor the signals must keep their usual effect, or Ctrl-C would do nothing.
  if (fd_ < 0) pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
}

StopSignals::~StopSignals() {
  if (fd_ >= 0) close(fd_);
}

StopRequest::StopRequest() : fd_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

StopRequest::~StopRequest() {
  if (fd_ >= 0) close(fd_);
}

void StopRequest::request() const {
  const std::uint64_t one = 1;
  [[maybe_unused]] const ssize_t written = write(fd_, &one, sizeof one);
}

WatchEnd RunWatchLoop(const StopSignals& signals, const StopRequest& stop,
                      std::optional<Clock::time_point> deadline, ScenarioPlayer* scenario) {
  MainRunLoop& loop = MainRunLoop::shared();
  for (;;) {
    if (scenario != nullptr) scenario->applyDue(Clock::now());
    if (deadline && Clock::now() >= *deadline) return WatchEnd::DurationEnded;

    pollfd descriptors[] = {
        {signals.fd(), POLLIN, 0}, {stop.fd(), POLLIN, 0}, {loop.fileDescriptor(), POLLIN, 0}};
    const auto wakeAt =
        Earliest(deadline, scenario != nullptr ? scenario->nextDue() : std::nullopt);
    const int ready = poll(descriptors, 3, TimeoutUntil(wakeAt));
    if (ready < 0 && errno != EINTR) return WatchEnd::StopRequested;
    if (descriptors[0].revents != 0) return WatchEnd::Interrupted;
    if (descriptors[1].revents != 0) return WatchEnd::StopRequested;
    if (descriptors[2].revents != 0) loop.performDueWork();
  }
}

}  // namespace harkwell::cli
