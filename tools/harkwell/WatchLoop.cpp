#include "tools/harkwell/WatchLoop.h"

#include <fcntl.h>
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

bool SetNonBlockingAndCloseOnExec(int fd) {
  const int flags = fcntl(fd, F_GETFL);
  return flags >= 0 && fcntl(fd, F_SETFL, flags | O_NONBLOCK) == 0 &&
         fcntl(fd, F_SETFD, FD_CLOEXEC) == 0;
}

}  // namespace

WakePipe::WakePipe() {
  int fds[2];
  if (pipe(fds) != 0) return;
  if (!SetNonBlockingAndCloseOnExec(fds[0]) || !SetNonBlockingAndCloseOnExec(fds[1])) {
    close(fds[0]);
    close(fds[1]);
    return;
  }
  readFd_ = fds[0];
  writeFd_ = fds[1];
}

WakePipe::~WakePipe() {
  if (readFd_ >= 0) close(readFd_);
  if (writeFd_ >= 0) close(writeFd_);
}

void WakePipe::wake() const {
  const char byte = 1;
  // A full pipe is already readable, so a failed write loses nothing.
  [[maybe_unused]] const ssize_t written = write(writeFd_, &byte, 1);
}

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

void RunWatchLoop(const StopSignals& signals, const StopRequest& stop, int outputFd,
                  std::optional<Clock::time_point> deadline, ScenarioPlayer* scenario) {
  MainRunLoop& loop = MainRunLoop::shared();
  const int loopFd = loop.fileDescriptor();
  for (;;) {
    if (scenario != nullptr) scenario->applyDue(Clock::now());
    if (deadline && Clock::now() >= *deadline) return;

    // The output is polled for nothing: poll() still reports POLLERR or POLLHUP on it once the
    // reader of a pipe or socket has gone (POLLNVAL when it is not open at all), so a watch with
    // nothing to print ends as soon as its reader does, not at its next line.
    pollfd descriptors[] = {
        {signals.fd(), POLLIN, 0}, {stop.fd(), POLLIN, 0}, {outputFd, 0, 0}, {loopFd, POLLIN, 0}};
    constexpr nfds_t kWithoutLoop = 3;
    const auto wakeAt =
        Earliest(deadline, scenario != nullptr ? scenario->nextDue() : std::nullopt);
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
    if (descriptors[3].revents != 0) loop.performDueWork();
  }
}

}  // namespace harkwell::cli
