// `harkwell watch [--json | --format BAR [--min-visible SECONDS]] [--duration SECONDS] [--follow]`:
// runs a MediaDeviceController and prints its initial discovery and every later event (and change
// of a device's consumers) as it arrives (or, with --format, a status-bar line each time what the
// bar shows changes), until Ctrl-C (or SIGTERM), the end of the duration, stdout being closed, or
// (with a scenario and without --follow) the scenario's last step. Observation is switched off
// before the program ends.
//
// The main thread never blocks on the controller's queue: that queue may wait for the main thread
// to invalidate a polling timer, so every wait here keeps the main run loop served.
#include <unistd.h>

#include "HarkwellFoundation/Controller/MediaDeviceController.h"
#include "tools/harkwell/BarFeed.h"
#include "tools/harkwell/Commands.h"
#include "tools/harkwell/Seconds.h"
#include "tools/harkwell/WatchPrinter.h"
#include "tools/harkwell/WatchSession.h"

namespace harkwell::cli {

int RunWatch(const Options& options, CommandContext& context) {
  const auto start = std::chrono::steady_clock::now();
  auto session = WatchSession::start(options.services, "com.harkwell.cli.watch", context.err);
  if (!session) return 1;
  const StopRequest& stop = session->stop();

  WatchPrinter printer(options.json, context.painter, context.out);
  auto controller = MediaDeviceController::create(session->queue());
  std::shared_ptr<BarFeed> bar;
  if (options.barFormat) {
    bar = BarFeed::create(
        {.format = *options.barFormat,
         .minVisible = SecondsToDuration(options.minVisibleSeconds),
         .write = [&out = context.out](const std::string& line) { return out.writeLine(line); },
         .outputClosed = [&stop] { stop.request(); }},
        session->queue());
    bar->attach(*controller);
  } else {
    // Both callbacks run on the queue; they only print, and ask the main loop to end when they
    // cannot.
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
  }
  if (session->handlesSignals() && isatty(STDERR_FILENO)) {
    context.err.writeLine("Watching devices; press Ctrl-C to stop.");
  }
  std::optional<std::chrono::steady_clock::time_point> deadline;
  if (options.durationSeconds) {
    // The command line has checked the duration against kMaxSeconds.
    deadline = start + SecondsToDuration(*options.durationSeconds);
  }
  session->run(*controller, context.out.fd(), deadline, !options.follow);
  session->stopController(*controller);
  if (bar) bar->stopTimers();
  ReleaseServices();
  return 0;
}

}  // namespace harkwell::cli
