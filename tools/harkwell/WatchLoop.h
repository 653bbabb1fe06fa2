// The main thread's loop while `harkwell watch` runs. It waits for four things at once: the
// MainRunLoop's work (main-queue work and the polling timer), SIGINT or SIGTERM, a request from
// another thread to end (when a write to stdout fails), and the reader of stdout going away.
// Between waits it applies the scenario steps that are due. Signals and requests each arrive as a
// byte on a pipe; the signal handler does nothing but write that byte, which is safe in a handler.
#pragma once

#include <chrono>
#include <optional>

#include "tools/harkwell/ScenarioPlayer.h"

namespace harkwell::cli {

// A non-blocking pipe whose read end becomes readable once anything was written to it.
class WakePipe {
 public:
  WakePipe();
  ~WakePipe();
  WakePipe(const WakePipe&) = delete;
  WakePipe& operator=(const WakePipe&) = delete;
  bool isValid() const { return readFd_ >= 0; }
  int readFd() const { return readFd_; }
  int writeFd() const { return writeFd_; }
  // Any thread, and a signal handler, may call it.
  void wake() const;

 private:
  int readFd_ = -1;
  int writeFd_ = -1;
};

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

// Runs until a signal, a request, `outputFd` reporting that its reader has gone (or that it is not
// open), or `deadline` (steady clock; absent: no end). `scenario` may be null. Main thread only.
void RunWatchLoop(const StopSignals& signals, const StopRequest& stop, int outputFd,
                  std::optional<std::chrono::steady_clock::time_point> deadline,
                  ScenarioPlayer* scenario);

}  // namespace harkwell::cli
