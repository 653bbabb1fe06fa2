// Waiting without sleeping: a recorder that callbacks append to and tests wait on with a deadline,
// and a way to let a serial queue finish what is already queued on it.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "HarkwellFoundation/Platform/DispatchQueue.h"

namespace harkwell::testing {

constexpr std::chrono::seconds kDefaultDeadline{10};

// Appended to from any thread; waited on from the test's thread.
template <class Entry>
class Recorder {
 public:
  void append(Entry entry) {
    // Notified under the lock: a waiter may destroy the recorder as soon as it sees the entry.
    std::lock_guard lock(mutex_);
    entries_.push_back(std::move(entry));
    changed_.notify_all();
  }

  std::vector<Entry> entries() const {
    std::lock_guard lock(mutex_);
    return entries_;
  }

  std::size_t size() const {
    std::lock_guard lock(mutex_);
    return entries_.size();
  }

  void clear() {
    std::lock_guard lock(mutex_);
    entries_.clear();
  }

  // True once at least `count` entries are recorded; false if the deadline passes first.
  bool waitForCount(std::size_t count,
                    std::chrono::milliseconds deadline = kDefaultDeadline) const {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, deadline, [&] { return entries_.size() >= count; });
  }

  // True once `predicate` holds for the recorded entries.
  bool waitUntil(const std::function<bool(const std::vector<Entry>&)>& predicate,
                 std::chrono::milliseconds deadline = kDefaultDeadline) const {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, deadline, [&] { return predicate(entries_); });
  }

 private:
  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  std::vector<Entry> entries_;
};

// Returns once everything queued on the serial `queue` before the call has run.
inline void DrainQueue(const std::shared_ptr<DispatchQueue>& queue) {
  queue->sync([] {});
}

}  // namespace harkwell::testing
