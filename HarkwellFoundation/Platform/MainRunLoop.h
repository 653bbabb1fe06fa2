// The main thread's event loop. It runs the main queue's work and the repeating timers that
// observers schedule (their polling timer). Programs run it in one of three ways:
//   - run(): blocks the main thread until stop() (like dispatch_main);
//   - runUntil(): for a bounded time, for tests and short-lived tools;
//   - fileDescriptor() + performDueWork(): for programs that have their own loop (GLib, Qt,
//     epoll): add the descriptor to that loop and call performDueWork() when it is readable.
// All of these, and RunLoopTimer::invalidate(), must be called on the main thread. Timers may be
// scheduled from any thread. Event-handler queues hop to the main thread synchronously (an
// observer invalidates its polling timer here), so the main thread must keep serving this loop
// and must never block on an event-handler queue.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>

#include "HarkwellFoundation/HarkwellFoundationExport.h"

namespace harkwell {

class MainRunLoop;

// A repeating timer on the main run loop. It keeps its action (and what the action holds) alive
// until it is invalidated.
class HARKWELL_EXPORT RunLoopTimer {
 public:
  virtual ~RunLoopTimer() = default;
  virtual double interval() const = 0;   // seconds
  virtual double tolerance() const = 0;  // seconds
  virtual bool isValid() const = 0;
  // Stops the timer and releases its action. Main thread only.
  virtual void invalidate() = 0;
};

class RunLoopTimerTable;

class HARKWELL_EXPORT MainRunLoop {
 public:
  static MainRunLoop& shared();

  MainRunLoop(const MainRunLoop&) = delete;
  MainRunLoop& operator=(const MainRunLoop&) = delete;
  virtual ~MainRunLoop();

  // A repeating timer whose first firing comes one interval from now; its action runs on the main
  // thread at every firing until the timer is invalidated.
  std::shared_ptr<RunLoopTimer> scheduleRepeatingTimer(double interval, double tolerance,
                                                       std::function<void()> action);

  virtual void run() = 0;
  // Makes run() return; any thread may call it.
  virtual void stop() = 0;
  // Runs the loop until `done` returns true (checked after each pass) or `timeout` has passed in
  // real time; returns the last value of `done`.
  virtual bool runUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout) = 0;
  // Readable whenever work is due.
  virtual int fileDescriptor() const = 0;
  // Runs the main queue's waiting work and fires the timers that are due; never blocks.
  virtual void performDueWork() = 0;

  // For tests only: they drive the timers' clock. After useManualClockForTesting() time stands
  // still until advanceManualClockForTesting() moves it, and timers fire by that clock alone;
  // useSystemClockForTesting() goes back, keeping each timer's remaining time. Any thread.
  void useManualClockForTesting();
  void advanceManualClockForTesting(std::chrono::nanoseconds delta);
  void useSystemClockForTesting();
  // How many valid timers are scheduled.
  std::size_t scheduledTimerCountForTesting() const;

 protected:
  MainRunLoop();

  // The loop's timers and their clock, the same on every platform.
  RunLoopTimerTable& timers() const { return *timers_; }
  // Any thread, never under a lock of the table: a timer was added or the clock changed, so the
  // next fire date may have moved. The platform wakes its loop, which then fires what is due and
  // waits for timers().nextSystemWakeUp().
  virtual void timersChanged() = 0;

 private:
  const std::unique_ptr<RunLoopTimerTable> timers_;
};

}  // namespace harkwell
