// `harkwell watch [--json] [--duration SECONDS]`: runs a MediaDeviceController and prints its
// initial discovery and every later event as it arrives, until Ctrl-C (or SIGTERM), the end of
// the duration, or stdout being closed. Observation is switched off before the program ends.
#include <signal.h>
#include <unistd.h>

#include "HarkwellFoundation/Controller/MediaDeviceController.h"
#include "tools/harkwell/Commands.h"
#include "tools/harkwell/Seconds.h"
#include "tools/harkwell/ServiceSelection.h"
#include "tools/harkwell/WatchLoop.h"
#include "tools/harkwell/WatchPrinter.h"

namespace harkwell::cli {

int RunWatch(const Options& options, CommandContext& context) {
  const StopSignals signals;
  const StopRequest stop;
  if (!stop.isValid()) {
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
  ScenarioPlayer* scenario = setup.services->scenario.get();

  WatchPrinter printer(options.json, context.painter, context.out);
  auto queue = DispatchQueue::createSerial("com.harkwell.cli.watch");
  auto controller = MediaDeviceController::create(queue);
  // Both callbacks run on `queue`; they only print, and ask the main loop to end when they cannot.
  controller->setUpdatingDevicesHandler([&printer, &stop](bool finished) {
    if (!printer.printUpdating(finished)) stop.request();
  });
  controller->setDeviceEventHandler(
      [&printer, &stop](MediaDeviceEvent event, const MediaDevice& device) {
        if (!printer.printEvent(event, device)) stop.request();
      });
  if (signals.isValid() && isatty(STDERR_FILENO)) {
    context.err.writeLine("Watching devices; press Ctrl-C to stop.");
  }
  controller->setObserveDevices(true);
  // Scenario steps count from the moment the initial discovery has been printed.
  queue->sync([] {});

  const auto start = std::chrono::steady_clock::now();
  // Each step's notifications are handled before the next step, so a device plugged in is
  // observed before a later step starts it, however close together the steps are.
  if (scenario != nullptr) scenario->start(start, [&queue] { queue->sync([] {}); });
  std::optional<std::chrono::steady_clock::time_point> deadline;
  if (options.durationSeconds) {
    // The command line has checked the duration against kMaxSeconds.
    deadline = start + SecondsToDuration(*options.durationSeconds);
  }
  RunWatchLoop(signals, stop, context.out.fd(), deadline, scenario);

  controller->setObserveDevices(false);
  // The callbacks refer to the printer on this stack: let any call under way finish first.
  controller->setUpdatingDevicesHandler(nullptr);
  controller->setDeviceEventHandler(nullptr);
  queue->sync([] {});
  ReleaseServices();
  return 0;
}

}  // namespace harkwell::cli
