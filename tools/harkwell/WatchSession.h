// What `harkwell watch` and `harkwell serve` share around their controller: Ctrl-C and SIGTERM
// turned into a pipe, a request pipe for the controller's handlers, the controller's queue with
// its barrier, and the device sources the command line chose; then the main thread's loop, and the
// shutdown that switches observation off while the main run loop goes on serving.
//
// Main thread only. The handlers that a command installs may use `stop` from the queue.
#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include "HarkwellFoundation/Controller/MediaDeviceController.h"
#include "tools/harkwell/CommandLine.h"
#include "tools/harkwell/LineWriter.h"
#include "tools/harkwell/QueueBarrier.h"
#include "tools/harkwell/ServiceSelection.h"
#include "tools/harkwell/WatchLoop.h"

namespace harkwell::cli {

class WatchSession {
 public:
  // Makes the pipes and the queue (labelled `queueLabel`) and installs the services. Null, after
  // one line on `err`, when a pipe could not be made or a device source could not be installed.
  static std::unique_ptr<WatchSession> start(const ServiceOptions& options,
                                             const std::string& queueLabel, LineWriter& err);
  WatchSession(const WatchSession&) = delete;
  WatchSession& operator=(const WatchSession&) = delete;

  // Switches `controller` on and runs the main thread's loop until a signal, a request on `stop`,
  // `outputFd` going away (-1: none), the deadline, or (with `endAfterScenario`) the scenario's
  // last step.
  void run(MediaDeviceController& controller, int outputFd,
           std::optional<std::chrono::steady_clock::time_point> deadline, bool endAfterScenario);
  // Gives Ctrl-C its usual effect back, switches observation off, clears the controller's
  // handlers and waits, serving the main run loop, until its queue has finished what it started.
  void stopController(MediaDeviceController& controller);

  const std::shared_ptr<DispatchQueue>& queue() const { return queue_; }
  const StopRequest& stop() const { return stop_; }
  bool handlesSignals() const { return signals_ && signals_->isValid(); }

 private:
  explicit WatchSession(const std::string& queueLabel);

  std::optional<StopSignals> signals_;
  const StopRequest stop_;
  const std::shared_ptr<DispatchQueue> queue_;
  QueueBarrier barrier_;
  std::optional<InstalledServices> services_;
};

}  // namespace harkwell::cli
