#include "HarkwellFoundation/Platform/Linux/PipeWire/PipeWireHardwareService.h"

#include "HarkwellFoundation/Platform/Linux/PipeWire/PipeWireDeviceMapping.h"
#include "HarkwellFoundation/Platform/SystemLog.h"

#if defined(HARKWELL_WITH_DEVICE_RESERVATION)
#include "HarkwellFoundation/Platform/Linux/Reservation/DeviceReservation.h"
#endif

namespace harkwell {

std::shared_ptr<PipeWireHardwareService> PipeWireHardwareService::create(Options options) {
  std::shared_ptr<PipeWireHardwareService> service(new PipeWireHardwareService);
#if defined(HARKWELL_WITH_DEVICE_RESERVATION)
  service->setDeviceReservation(options.reservation ? std::move(options.reservation)
                                                    : DeviceReservation::create());
#endif
  PipeWireGraphConnection::Options connectionOptions;
  connectionOptions.remote = options.remote;
  // The connection is destroyed before the rest of the service, so the raw pointer outlives it.
  service->connection_ = PipeWireGraphConnection::start(
      std::move(connectionOptions), [raw = service.get()](const PipeWireGraph& graph) {
        raw->applyDevices(MapPipeWireGraph(graph));
      });
  if (!service->connection_) {
    SystemLog("PipeWire: cannot start libpipewire's loop; no audio devices will be reported");
    return nullptr;
  }
  // Bounded: a daemon that does not answer in time is picked up later, like a daemon that starts.
  service->connection_->waitForFirstOutcome(options.startupTimeout);
  return service;
}

PipeWireHardwareService::~PipeWireHardwareService() {
  connection_.reset();
}

}  // namespace harkwell
