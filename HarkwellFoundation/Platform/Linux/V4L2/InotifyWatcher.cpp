#include "HarkwellFoundation/Platform/Linux/V4L2/InotifyWatcher.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace harkwell::v4l2 {
namespace {

using Clock = std::chrono::steady_clock;

timespec ToTimespec(std::chrono::nanoseconds duration) {
  if (duration < std::chrono::nanoseconds::zero()) duration = std::chrono::nanoseconds::zero();
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(duration);
  return timespec{static_cast<time_t>(seconds.count()),
                  static_cast<long>((duration - seconds).count())};
}

}  // namespace

InotifyWatcher::InotifyWatcher() {
  // The wake-up signal comes first: without inotify the owner still has to be woken and stopped.
  wakeFd_ = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
  inotifyFd_ = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  if (inotifyFd_ < 0) error_ = errno;
}

InotifyWatcher::~InotifyWatcher() {
  if (inotifyFd_ >= 0) ::close(inotifyFd_);
  if (wakeFd_ >= 0) ::close(wakeFd_);
}

int InotifyWatcher::addWatch(const std::string& path, std::uint32_t mask) {
  if (error_ != 0) return -error_;
  const int watch = ::inotify_add_watch(inotifyFd_, path.c_str(), mask);
  return watch >= 0 ? watch : -errno;
}

void InotifyWatcher::removeWatch(int watch) {
  if (error_ == 0 && watch >= 0) ::inotify_rm_watch(inotifyFd_, watch);
}

void InotifyWatcher::wake() {
  if (wakeFd_ < 0) return;
  const std::uint64_t one = 1;
  // A full counter already means "woken"; nothing else can fail here.
  [[maybe_unused]] const ssize_t written = ::write(wakeFd_, &one, sizeof one);
}

bool InotifyWatcher::consumeWakeUp() {
  std::uint64_t count = 0;
  return ::read(wakeFd_, &count, sizeof count) == sizeof count;
}

bool InotifyWatcher::readQueued(std::vector<InotifyEvent>& events) {
  alignas(inotify_event) char buffer[64 * 1024];
  const ssize_t length = ::read(inotifyFd_, buffer, sizeof buffer);
  if (length <= 0) return false;
  for (ssize_t offset = 0; offset < length;) {
    inotify_event header;
    std::memcpy(&header, buffer + offset, sizeof header);
    InotifyEvent event;
    event.watch = (header.mask & IN_Q_OVERFLOW) != 0 ? -1 : header.wd;
    event.mask = header.mask;
    if (header.len > 0) {
      const char* name = buffer + offset + sizeof header;
      event.name.assign(name, ::strnlen(name, header.len));
    }
    events.push_back(std::move(event));
    offset += static_cast<ssize_t>(sizeof header + header.len);
  }
  return true;
}

std::vector<InotifyEvent> InotifyWatcher::takeQueued() {
  std::vector<InotifyEvent> events;
  if (error_ == 0) {
    while (readQueued(events)) {
    }
  }
  return events;
}

InotifyWatcher::Burst InotifyWatcher::waitForBurst(std::optional<std::chrono::nanoseconds> timeout,
                                                   std::chrono::nanoseconds quietWindow,
                                                   std::chrono::nanoseconds longestBurst) {
  Burst burst;
  if (wakeFd_ < 0) {
    // Without a wake-up signal (out of descriptors) the owner looks for a stop request now and
    // then; it has no events to wait for either way.
    const timespec limit = ToTimespec(std::min<std::chrono::nanoseconds>(
        timeout.value_or(std::chrono::hours(1)), std::chrono::milliseconds(100)));
    ::ppoll(nullptr, 0, &limit, nullptr);
    burst.woken = true;
    return burst;
  }
  if (error_ != 0) {
    // Without inotify there is nothing to wait for but a wake-up or the timeout.
    pollfd wakeOnly{wakeFd_, POLLIN, 0};
    timespec limit{};
    if (timeout) limit = ToTimespec(*timeout);
    if (::ppoll(&wakeOnly, 1, timeout ? &limit : nullptr, nullptr) > 0) {
      burst.woken = consumeWakeUp();
    }
    return burst;
  }

  pollfd fds[2] = {{inotifyFd_, POLLIN, 0}, {wakeFd_, POLLIN, 0}};
  std::optional<Clock::time_point> burstStart;
  for (;;) {
    std::optional<std::chrono::nanoseconds> wait = timeout;
    if (burstStart) {
      const auto burstLeft = *burstStart + longestBurst - Clock::now();
      wait = std::min<std::chrono::nanoseconds>(quietWindow, burstLeft);
      if (*wait <= std::chrono::nanoseconds::zero()) return burst;
    }
    timespec limit{};
    if (wait) limit = ToTimespec(*wait);
    const int ready = ::ppoll(fds, 2, wait ? &limit : nullptr, nullptr);
    if (ready < 0) {
      if (errno == EINTR) continue;
      return burst;
    }
    if (ready == 0) return burst;  // the timeout, or a quiet window without further events
    if ((fds[1].revents & POLLIN) != 0 && consumeWakeUp()) {
      burst.woken = true;
      while (readQueued(burst.events)) {
      }
      return burst;
    }
    if ((fds[0].revents & POLLIN) != 0) {
      while (readQueued(burst.events)) {
      }
      if (!burstStart) burstStart = Clock::now();
    }
  }
}

}  // namespace harkwell::v4l2
