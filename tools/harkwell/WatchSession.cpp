#include "tools/harkwell/WatchSession.h"

#include <signal.h>

#include "tools/harkwell/Commands.h"
#include "tools/harkwell/MainLoopWait.h"

namespace harkwell::cli {

WatchSession::WatchSession(const std::string& queueLabel)
    : queue_(DispatchQueue::createSerial(queueLabel)), barrier_(queue_) {
  signals_.emplace();
}

std::unique_ptr<WatchSession> WatchSession::start(const ServiceOptions& options,
                                                  const std::string& queueLabel, LineWriter& err) {
  std::unique_ptr<WatchSession> session(new WatchSession(queueLabel));
  if (!session->stop_.isValid() || !session->barrier_.isValid()) {
    err.writeLine("harkwell: cannot create a pipe");
    return nullptr;
  }
  // A closed stdout shows up as a failed write, or in the loop's poll while there is nothing to
  // write; either ends the watch.
  signal(SIGPIPE, SIG_IGN);

  auto setup = InstallServices(options);
  if (!setup.services) {
    err.writeLine("harkwell: " + setup.error);
    return nullptr;
  }
  LogStartupLines(*setup.services);
  session->services_ = std::move(setup.services);
  return session;
}

void WatchSession::run(MediaDeviceController& controller, int outputFd,
                       std::optional<std::chrono::steady_clock::time_point> deadline,
                       bool endAfterScenario) {
  controller.setObserveDevices(true);
  // Scenario steps count from the moment this barrier passes: the initial discovery has been
  // handled by then.
  barrier_.post();
  RunWatchLoop(WatchLoopSettings{.signals = *signals_,
                                 .stop = stop_,
                                 .outputFd = outputFd,
                                 .deadline = deadline,
                                 .scenario = services_->scenario.get(),
                                 .barrier = barrier_,
                                 .endAfterScenario = endAfterScenario});
}

void WatchSession::stopController(MediaDeviceController& controller) {
  // From here Ctrl-C has its usual effect again, so a second one ends a shutdown that is stuck
  // (on an output nobody reads, say).
  signals_.reset();
  controller.setObserveDevices(false);
  // The handlers may refer to the caller's stack: let any call under way finish first, while the
  // main run loop goes on serving the queue's hops to the main thread.
  controller.setUpdatingDevicesHandler(nullptr);
  controller.setDeviceEventHandler(nullptr);
  controller.setDeviceConsumersHandler(nullptr);
  WaitForQueueServingMainLoop(*queue_);
}

}  // namespace harkwell::cli
