// `harkwell watch [--json] [--duration SECONDS] [--follow]`: runs a MediaDeviceController and
// prints its initial discovery and every later event (and change of a device's consumers) as it
// arrives, until Ctrl-C (or SIGTERM), the
// end of the duration, stdout being closed, or (with a scenario and without --follow) the
// scenario's last step. Observation is switched off before the program ends.
//
// The main thread never blocks on the controller's queue: that queue may wait for the main thread
// to invalidate a polling timer, so every wait here keeps the main run loop served.
#include <signal.h>
#include <unistd.h>

#include "HarkwellFoundation/Controller/MediaDeviceController.h"
#include "tools/harkwell/Commands.h"
#include "tools/harkwell/MainLoopWait.h"
#include "tools/harkwell/QueueBarrier.h"
#include "tools/harkwell/Seconds.h"
#include "tools/harkwell/ServiceSelection.h"
#include "tools/harkwell/WatchLoop.h"
#include "tools/harkwell/WatchPrinter.h"

namespace harkwell::cli {

int RunWatch(const Options& options, CommandContext& context) {
  std::optional<StopSignals> signals;
  signals.emplace();
  const StopRequest stop;
  auto queue = DispatchQueue::createSerial("com.harkwell.cli.watch");
  QueueBarrier barrier(queue);
  if (!stop.isValid() || !barrier.isValid()) {
    context.err.writeLine("harkwell: cannot create a pipe");
    return 1;
  }
  // A closed stdout shows up as a failed write, or in the loop's poll while there is nothing to
  // write; either ends the watch below.
  signal(SIGPIPE, SIG_IGN);

  auto setup = InstallServices(options.services);
  if (!setup.services) {
    context.err.writeLine("harkwell: " + setup.error);
    return 1;
  }
  LogStartupLines(*setup.services);
  ScenarioPlayer* scenario = setup.services->scenario.get();

  WatchPrinter printer(options.json, context.painter, context.out);
  auto controller = MediaDeviceController::create(queue);
  // The callbacks run on `queue`; they only print, and ask the main loop to end when they cannot.
  controller->setUpdatingDevicesHandler([&printer, &stop](bool finished) {
    if (!printer.printUpdating(finished)) stop.request();
  });
  controller->setDeviceEventHandler(
      [&printer, &stop](MediaDeviceEvent event, const MediaDevice& device) {
        if (!printer.printEvent(event, device)) stop.request();
      });
  controller->setDeviceConsumersHandler(
      [&printer, &stop](const MediaDevice& device,
                        const std::vector<MediaDeviceConsumer>& consumers) {
        if (!printer.printConsumers(device, consumers)) stop.request();
      });
  if (signals->isValid() && isatty(STDERR_FILENO)) {
    context.err.writeLine("Watching devices; press Ctrl-C to stop.");
  }
  const auto start = std::chrono::steady_clock::now();
  std::optional<std::chrono::steady_clock::time_point> deadline;
  if (options.durationSeconds) {
    // The command line has checked the duration against kMaxSeconds.
    deadline = start + SecondsToDuration(*options.durationSeconds);
  }
  controller->setObserveDevices(true);
  // Scenario steps count from the moment this barrier passes: the initial discovery has been
  // printed by then.
  barrier.post();
  RunWatchLoop(WatchLoopSettings{.signals = *signals,
                                 .stop = stop,
                                 .outputFd = context.out.fd(),
                                 .deadline = deadline,
                                 .scenario = scenario,
                                 .barrier = barrier,
                                 .endAfterScenario = !options.follow});

  // From here Ctrl-C has its usual effect again, so a second one ends a shutdown that is stuck
  // (on an output nobody reads, say).
  signals.reset();
  controller->setObserveDevices(false);
  // The callbacks refer to the printer on this stack: let any call under way finish first, while
  // the main run loop goes on serving the queue's hops to the main thread.
  controller->setUpdatingDevicesHandler(nullptr);
  controller->setDeviceEventHandler(nullptr);
  controller->setDeviceConsumersHandler(nullptr);
  WaitForQueueServingMainLoop(*queue);
  ReleaseServices();
  return 0;
}

}  // namespace harkwell::cli
