// The main thread's loop while `harkwell watch` runs. It waits on three descriptors at once: the
// MainRunLoop's (main-queue work and the polling timer), a signalfd for SIGINT and SIGTERM, and an
// eventfd that other threads write to ask for the end (when stdout is closed). Between waits it
// applies the scenario steps that are due. No signal handler runs: the signals are blocked and
// read from the signalfd, so nothing needs to be async-signal-safe.
#pragma once

#include <chrono>
#include <optional>

#include "tools/harkwell/ScenarioPlayer.h"

namespace harkwell::cli {

// SIGINT and SIGTERM, blocked and readable from a descriptor. Create it on the main thread before
// any other thread starts, so every thread inherits the blocked mask and no thread is killed.
class StopSignals {
 public:
  StopSignals();
  ~StopSignals();
  StopSignals(const StopSignals&) = delete;
  StopSignals& operator=(const StopSignals&) = delete;
  bool isValid() const { return fd_ >= 0; }
  int fd() const { return fd_; }

 private:
  int fd_ = -1;
};

// An eventfd any thread may write to ask the loop to end.
class StopRequest {
 public:
  StopRequest();
  ~StopRequest();
  StopRequest(const StopRequest&) = delete;
  StopRequest& operator=(const StopRequest&) = delete;
  bool isValid() const { return fd_ >= 0; }
  int fd() const { return fd_; }
  void request() const;

 private:
  int fd_ = -1;
};

enum class WatchEnd { Interrupted, DurationEnded, StopRequested };

// Runs until a signal, a request or `deadline` (steady clock; absent: no end). `scenario` may be
// null. Main thread only.
WatchEnd RunWatchLoop(const StopSignals& signals, const StopRequest& stop,
                      std::optional<std::chrono::steady_clock::time_point> deadline,
                      ScenarioPlayer* scenario);

}  // namespace harkwell::cli
