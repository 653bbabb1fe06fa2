#include "HarkwellFoundation/Platform/Linux/PulseAudio/PulseAudioHardwareService.h"

#include "HarkwellFoundation/Platform/Linux/PulseAudio/PulseAudioDeviceMapping.h"
#include "HarkwellFoundation/Platform/SystemLog.h"

#if defined(HARKWELL_WITH_DEVICE_RESERVATION)
#include "HarkwellFoundation/Platform/Linux/Reservation/DeviceReservation.h"
#endif

namespace harkwell {

std::shared_ptr<PulseAudioHardwareService> PulseAudioHardwareService::create(Options options) {
  std::shared_ptr<PulseAudioHardwareService> service(new PulseAudioHardwareService);
#if defined(HARKWELL_WITH_DEVICE_RESERVATION)
  service->setDeviceReservation(options.reservation ? std::move(options.reservation)
                                                    : DeviceReservation::create());
#endif
  PulseAudioServerConnection::Options connectionOptions;
  connectionOptions.server = options.server;
  // The connection is destroyed before the rest of the service, so the raw pointer outlives it.
  // On libpulse's loop thread: maps the state, then updates the mirror and notifies.
  service->connection_ = PulseAudioServerConnection::start(
      std::move(connectionOptions), [raw = service.get()](const PulseServerState& state) {
        raw->applyDevices(DistinctPulseDevices(MapPulseServerState(state)));
      });
  if (!service->connection_) {
    SystemLog("PulseAudio: cannot start libpulse's main loop; no audio devices will be reported");
    return nullptr;
  }
  // Bounded: a server that does not answer in time is picked up later, like a server that starts.
  service->connection_->waitForFirstOutcome(options.startupTimeout);
  return service;
}

PulseAudioHardwareService::~PulseAudioHardwareService() {
  connection_.reset();
}

}  // namespace harkwell
