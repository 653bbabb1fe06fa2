// `harkwell serve`: offers the devices on the user's session bus (see DeviceBusService.h for the
// objects) until SIGINT or SIGTERM, with exit status 0 then. It never uses the system bus: what it
// shows is what the user could read already.
//
// The bus name is requested once the initial discovery has been exported, so a client started by
// bus activation finds every device at once. Exit status 1, after one line on stderr, when there
// is no session bus, another program owns the name, or the bus goes away while serving (the user's
// service manager starts it again when it is wanted).
//
// Threads: the main thread runs the watch loop (the main run loop, signals, scenario steps) and
// never blocks on the controller's queue; the controller's handlers export each change from that
// queue; the bus connection's own thread answers clients.
#include <atomic>
#include <cstring>

#include "HarkwellFoundation/Controller/MediaDeviceController.h"
#include "tools/harkwell/Commands.h"
#include "tools/harkwell/WatchSession.h"

#if HARKWELL_WITH_DEVICE_RESERVATION
#include <systemd/sd-bus.h>

#include "tools/harkwell/serve/DeviceBusService.h"
#endif

namespace harkwell::cli {

#if !HARKWELL_WITH_DEVICE_RESERVATION

int RunServe(const Options&, CommandContext& context) {
  context.err.writeLine(
      "harkwell: this build has no D-Bus support (it was built without libsystemd)");
  return 1;
}

#else

namespace {

using namespace std::chrono_literals;

// How long connecting, and any one call on the bus, may take.
constexpr auto kBusCallTimeout = 2s;

std::string NameRefusal(int status) {
  if (status == -EEXIST || status == -EALREADY) {
    return std::string("harkwell: ") + kDevicesBusName +
           " is already owned on the session bus (is another harkwell serve running?)";
  }
  return std::string("harkwell: cannot own ") + kDevicesBusName +
         " on the session bus: " + std::strerror(-status);
}

}  // namespace

int RunServe(const Options& options, CommandContext& context) {
  auto session = WatchSession::start(options.services, "com.harkwell.cli.serve", context.err);
  if (!session) return 1;
  const StopRequest& stop = session->stop();

  std::string why;
  const auto address = SessionBusAddress(&why);
  if (!address) {
    context.err.writeLine("harkwell: no session bus: " + why);
    ReleaseServices();
    return 1;
  }
  auto connection = ReservationBusConnection::connect(*address, kBusCallTimeout, &why);
  if (!connection) {
    context.err.writeLine("harkwell: no session bus: " + why);
    ReleaseServices();
    return 1;
  }
  std::atomic<bool> busGone{false};
  connection->setClosedHandler([&busGone, &stop] {
    busGone = true;
    stop.request();
  });
  auto service = DeviceBusService::create(*connection, &why);
  if (!service) {
    context.err.writeLine("harkwell: " + why);
    ReleaseServices();
    return 1;
  }

  // Set on the queue when the name could not be owned; read after the queue has drained.
  std::string refusal;
  bool named = false;
  auto controller = MediaDeviceController::create(session->queue());
  controller->setUpdatingDevicesHandler([&](bool finished) {
    service->noteUpdating(finished);
    if (!finished || named || !refusal.empty()) return;
    const int status = connection->withBus(
        [](sd_bus* bus) { return sd_bus_request_name(bus, kDevicesBusName, 0); });
    if (status < 0) {
      refusal = NameRefusal(status);
      stop.request();
      return;
    }
    named = true;
    context.err.writeLine(std::string("harkwell: serving ") + kDevicesBusName +
                          " on the session bus");
  });
  controller->setDeviceEventHandler([&service](MediaDeviceEvent event, const MediaDevice& device) {
    service->noteEvent(event, device);
  });
  controller->setDeviceConsumersHandler(
      [&service](const MediaDevice& device, const std::vector<MediaDeviceConsumer>& consumers) {
        service->noteConsumers(device, consumers);
      });
  session->run(*controller, -1, std::nullopt, false);
  session->stopController(*controller);
  service.reset();
  connection.reset();
  ReleaseServices();
  if (!refusal.empty()) {
    context.err.writeLine(refusal);
    return 1;
  }
  if (busGone) {
    context.err.writeLine("harkwell: the session bus closed the connection; stopping");
    return 1;
  }
  return 0;
}

#endif

}  // namespace harkwell::cli
