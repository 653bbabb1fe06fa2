// A mutex, its scoped lock and a condition variable that carry clang's thread-safety attributes
// (libstdc++'s std::mutex carries none, so the analysis could not see it being taken). They add
// nothing at run time: each is a std::mutex, a lock of it, or a std::condition_variable.
//
//   mutable Mutex mutex_;
//   int count_ HARKWELL_GUARDED_BY(mutex_) = 0;
//   ...
//   MutexLock lock(mutex_);
//   while (count_ == 0) changed_.wait(mutex_);
//
// A predicate lambda is analysed on its own, without knowing that its caller holds the mutex; it
// starts with mutex_.assertHeld() to say so.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <utility>

#include "HarkwellFoundation/Platform/ThreadAnnotations.h"

namespace harkwell {

class HARKWELL_CAPABILITY("mutex") Mutex {
 public:
  Mutex() = default;
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  void lock() HARKWELL_ACQUIRE() { mutex_.lock(); }
  void unlock() HARKWELL_RELEASE() { mutex_.unlock(); }
  bool try_lock() HARKWELL_TRY_ACQUIRE(true) { return mutex_.try_lock(); }
  // Tells the analysis that the caller holds this mutex; checks nothing at run time.
  void assertHeld() const HARKWELL_ASSERT_CAPABILITY(this) {}

 private:
  friend class CondVar;
  std::mutex mutex_;
};

// Holds a Mutex from construction to destruction, like std::lock_guard; unlock() and lock() let a
// scope step out of the lock for a while (to call a client, say) and back in.
class HARKWELL_SCOPED_CAPABILITY MutexLock {
 public:
  explicit MutexLock(Mutex& mutex) HARKWELL_ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
  ~MutexLock() HARKWELL_RELEASE() {
    if (held_) mutex_.unlock();
  }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

  void unlock() HARKWELL_RELEASE() {
    mutex_.unlock();
    held_ = false;
  }
  void lock() HARKWELL_ACQUIRE() {
    mutex_.lock();
    held_ = true;
  }

 private:
  Mutex& mutex_;
  bool held_ = true;
};

// A condition variable used with a Mutex the caller holds; waiting gives the mutex up and takes it
// back before returning, so to the analysis the mutex stays held throughout.
class CondVar {
 public:
  void wait(Mutex& mutex) HARKWELL_REQUIRES(mutex) {
    std::unique_lock<std::mutex> lock(mutex.mutex_, std::adopt_lock);
    condition_.wait(lock);
    lock.release();
  }
  template <class Predicate>
  void wait(Mutex& mutex, Predicate done) HARKWELL_REQUIRES(mutex) {
    while (!done()) wait(mutex);
  }
  // False when `deadline` passed first.
  template <class Clock, class Duration, class Predicate>
  bool waitUntil(Mutex& mutex, const std::chrono::time_point<Clock, Duration>& deadline,
                 Predicate done) HARKWELL_REQUIRES(mutex) {
    std::unique_lock<std::mutex> lock(mutex.mutex_, std::adopt_lock);
    const bool reached = condition_.wait_until(lock, deadline, done);
    lock.release();
    return reached;
  }
  template <class Rep, class Period, class Predicate>
  bool waitFor(Mutex& mutex, const std::chrono::duration<Rep, Period>& timeout, Predicate done)
      HARKWELL_REQUIRES(mutex) {
    return waitUntil(mutex, std::chrono::steady_clock::now() + timeout, std::move(done));
  }

  void notifyOne() { condition_.notify_one(); }
  void notifyAll() { condition_.notify_all(); }

 private:
  std::condition_variable condition_;
};

}  // namespace harkwell
