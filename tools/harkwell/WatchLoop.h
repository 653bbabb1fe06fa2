// The main thread's loop while `harkwell watch` runs. It waits for several things at once: the
// MainRunLoop's work (main-queue work and the polling timer), SIGINT or SIGTERM, a request from
// another thread to end (when a write to stdout fails), the reader of stdout going away, and the
// event queue passing a barrier. Signals and requests each arrive as a byte on a pipe; the signal
// handler does nothing but write that byte, which is safe in a handler.
//
// The loop never blocks on the event queue: the queue may be waiting for the main thread (an
// observer invalidates its polling timer there when a Bluetooth device goes away). Instead it
// posts a barrier after the start and after every scenario step, and applies the next step only
// once the barrier has come back, while it goes on serving everything else.
#pragma once

#include <chrono>
#include <optional>

#include "tools/harkwell/QueueBarrier.h"
#include "tools/harkwell/ScenarioPlayer.h"
#include "tools/harkwell/WakePipe.h"

namespace harkwell::cli {

// SIGINT and SIGTERM, turned into a readable pipe for as long as the object lives; their usual
// effect comes back when it goes. One at a time per process.
class StopSignals {
 public:
  StopSignals();
  ~StopSignals();
  StopSignals(const StopSignals&) = delete;
  StopSignals& operator=(const StopSignals&) = delete;
  bool isValid() const { return installed_; }
  int fd() const { return pipe_.readFd(); }

 private:
  WakePipe pipe_;
  bool installed_ = false;
};

// A pipe any thread may write to ask the loop to end.
class StopRequest {
 public:
  bool isValid() const { return pipe_.isValid(); }
  int fd() const { return pipe_.readFd(); }
  void request() const { pipe_.wake(); }

 private:
  WakePipe pipe_;
};

struct WatchLoopSettings {
  const StopSignals& signals;
  const StopRequest& stop;
  // Polled for its reader going away (or not being open at all).
  int outputFd = -1;
  // Steady clock; absent: no end.
  std::optional<std::chrono::steady_clock::time_point> deadline;
  // Null without a scenario. Its clock starts when `barrier` first passes.
  ScenarioPlayer* scenario = nullptr;
  // On the controller's queue, posted by the caller right after observation was switched on, so
  // its passing means the initial discovery has been handled.
  QueueBarrier& barrier;
  // End once the last scenario step has been handled (without it, run until told to end).
  bool endAfterScenario = false;
};

// Runs until a signal, a request, the output going away, the deadline, or (when asked) the end of
// the scenario. Main thread only.
void RunWatchLoop(const WatchLoopSettings& settings);

}  // namespace harkwell::cli
