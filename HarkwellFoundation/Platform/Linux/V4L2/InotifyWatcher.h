// An inotify instance and a wake-up signal, read by one thread. The V4L2 service's background
// thread owns one: it watches /dev for nodes appearing and disappearing, each video node for opens
// and closes, and the udev database for finished device setups, and sleeps in waitForBurst()
// until one of these happens or another thread calls wake().
//
// Events come in bursts (a program that opens a node to ask its capabilities and closes it again
// makes two events within microseconds); waitForBurst() returns a burst as one batch, so the
// service looks at the machine once per burst.
//
// Threads: wake() may be called from any thread; everything else only from the owning thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace harkwell::v4l2 {

struct InotifyEvent {
  int watch = -1;  // -1 for a queue overflow (IN_Q_OVERFLOW): events were lost
  std::uint32_t mask = 0;
  std::string name;  // the entry's name for events about a folder's entries; empty otherwise
};

class InotifyWatcher {
 public:
  InotifyWatcher();
  ~InotifyWatcher();
  InotifyWatcher(const InotifyWatcher&) = delete;
  InotifyWatcher& operator=(const InotifyWatcher&) = delete;

  // 0 when the watcher works; otherwise the errno of the failed setup (no watches can be added,
  // but wake() and the timeout still work).
  int error() const { return error_; }

  // The watch descriptor for `path` (the same one for two paths of one file), or -errno.
  int addWatch(const std::string& path, std::uint32_t mask);
  void removeWatch(int watch);

  struct Burst {
    std::vector<InotifyEvent> events;
    bool woken = false;  // wake() was called
  };

  // Waits until an event arrives, wake() is called or `timeout` passes (forever when absent).
  // After the first event it keeps collecting while more arrive within `quietWindow` of each
  // other, for at most `longestBurst` in all. A wake-up returns at once with the events already
  // queued.
  Burst waitForBurst(std::optional<std::chrono::nanoseconds> timeout,
                     std::chrono::nanoseconds quietWindow, std::chrono::nanoseconds longestBurst);

  // The events queued right now, without waiting.
  std::vector<InotifyEvent> takeQueued();

  // Makes the owning thread's waitForBurst() return.
  void wake();

 private:
  // Reads every queued event without waiting; false once nothing is left.
  bool readQueued(std::vector<InotifyEvent>& events);
  bool consumeWakeUp();

  int inotifyFd_ = -1;
  int wakeFd_ = -1;
  int error_ = 0;
};

}  // namespace harkwell::v4l2
