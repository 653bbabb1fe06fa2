#include "HarkwellFoundation/Platform/Linux/PulseAudio/PulseAudioHardwareService.h"

#include "HarkwellFoundation/Platform/AudioHardwareConstants.h"
#include "HarkwellFoundation/Platform/SystemLog.h"

#if defined(HARKWELL_WITH_DEVICE_RESERVATION)
#include "HarkwellFoundation/Platform/Linux/Reservation/internal/ReservationHogMode.h"
#endif

namespace harkwell {

std::shared_ptr<PulseAudioHardwareService> PulseAudioHardwareService::create(Options options) {
  std::shared_ptr<PulseAudioHardwareService> service(new PulseAudioHardwareService);
#if defined(HARKWELL_WITH_DEVICE_RESERVATION)
  service->reservation_ =
      options.reservation ? std::move(options.reservation) : DeviceReservation::create();
#endif
  PulseAudioServerConnection::Options connectionOptions;
  connectionOptions.server = options.server;
  // The connection is destroyed before the rest of the service, so the raw pointer outlives it.
  service->connection_ = PulseAudioServerConnection::start(
      std::move(connectionOptions),
      [raw = service.get()](const PulseServerState& state) { raw->serverStateChanged(state); });
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

void PulseAudioHardwareService::serverStateChanged(const PulseServerState& state) {
  std::vector<PulseMappedDevice> devices = MapPulseServerState(state);
  // /proc is read here, on the loop thread, never under the lock that reads wait on.
  for (PulseMappedDevice& device : devices) processDetails_.fill(device.consumers);
  processDetails_.endRound();
  std::vector<PulseAudioDeviceMirror::Change> changes;
  {
    MutexLock lock(mutex_);
    changes = mirror_.update(devices);
  }
  for (const auto& change : changes) listeners_.notify(change.object, change.address);
}

#if defined(HARKWELL_WITH_DEVICE_RESERVATION)
ReservationHogMode PulseAudioHardwareService::hogMode(ObjectID object,
                                                      const PropertyAddress& address) const {
  std::uint32_t card = 0;
  MutexLock lock(mutex_);
  // The card is read before the object is made: argument order is unspecified.
  const OSStatus status = mirror_.hogModeSoundCard(object, address, &card);
  return ReservationHogMode(*reservation_, status, card);
}
#endif

std::optional<std::uint32_t> PulseAudioHardwareService::soundCardOfDevice(ObjectID device) const {
  std::uint32_t card = 0;
  MutexLock lock(mutex_);
  const PropertyAddress address{kAudioDevicePropertyHogMode, kAudioObjectPropertyScopeGlobal,
                                kAudioObjectPropertyElementMaster};
  if (!reservation_ || mirror_.hogModeSoundCard(device, address, &card) != kNoErr) {
    return std::nullopt;
  }
  return card;
}

// Exclusive access ("oink") is answered from the card's reservation, outside the lock; a build
// without sd-bus leaves it to the mirror, which knows no such property.

OSStatus PulseAudioHardwareService::getPropertyDataSize(ObjectID object,
                                                        const PropertyAddress& address,
                                                        std::uint32_t, const void*,
                                                        std::uint32_t* outDataSize) {
#if defined(HARKWELL_WITH_DEVICE_RESERVATION)
  if (address.mSelector == kAudioDevicePropertyHogMode) {
    return hogMode(object, address).dataSize(outDataSize);
  }
#endif
  MutexLock lock(mutex_);
  return mirror_.getPropertyDataSize(object, address, outDataSize);
}

OSStatus PulseAudioHardwareService::getPropertyData(ObjectID object, const PropertyAddress& address,
                                                    std::uint32_t, const void*,
                                                    std::uint32_t* ioDataSize, void* outData) {
#if defined(HARKWELL_WITH_DEVICE_RESERVATION)
  if (address.mSelector == kAudioDevicePropertyHogMode) {
    return hogMode(object, address).read(ioDataSize, outData);
  }
#endif
  MutexLock lock(mutex_);
  return mirror_.getPropertyData(object, address, ioDataSize, outData);
}

OSStatus PulseAudioHardwareService::setPropertyData(ObjectID object, const PropertyAddress& address,
                                                    std::uint32_t, const void*,
                                                    [[maybe_unused]] std::uint32_t dataSize,
                                                    [[maybe_unused]] void* data) {
#if defined(HARKWELL_WITH_DEVICE_RESERVATION)
  if (address.mSelector == kAudioDevicePropertyHogMode) {
    return hogMode(object, address).write(dataSize, data);
  }
#endif
  MutexLock lock(mutex_);
  return mirror_.setPropertyDataStatus(object, address);
}

bool PulseAudioHardwareService::hasProperty(ObjectID object, const PropertyAddress& address) {
#if defined(HARKWELL_WITH_DEVICE_RESERVATION)
  if (address.mSelector == kAudioDevicePropertyHogMode) return hogMode(object, address).exists();
#endif
  MutexLock lock(mutex_);
  return mirror_.hasProperty(object, address);
}

OSStatus PulseAudioHardwareService::addPropertyListenerBlock(ObjectID object,
                                                             const PropertyAddress& address,
                                                             std::shared_ptr<DispatchQueue> queue,
                                                             PlatformListenerBlockRef block) {
  {
    MutexLock lock(mutex_);
    if (!mirror_.hasObject(object)) return kAudioHardwareBadObjectError;
  }
  // A device that leaves right here keeps this listener, as it keeps every other one: listeners
  // are not dropped when their device leaves. Its ID comes from its name, so if the device comes
  // back it has this ID again and the listener fires for its changes from then on (only two
  // present names sharing a home slot can move an ID to another device).
  // Removing the listener works whether the device is present or not.
  if (!listeners_.add(object, address, std::move(queue), std::move(block))) {
    return kAudioHardwareIllegalOperationError;
  }
  return kNoErr;
}

OSStatus PulseAudioHardwareService::removePropertyListenerBlock(
    ObjectID object, const PropertyAddress& address, std::shared_ptr<DispatchQueue> queue,
    PlatformListenerBlockRef block) {
  // A listener of a device that has left is removed all the same.
  if (listeners_.remove(object, address, queue, block)) return kNoErr;
  MutexLock lock(mutex_);
  return mirror_.hasObject(object) ? kAudioHardwareIllegalOperationError
                                   : kAudioHardwareBadObjectError;
}

}  // namespace harkwell
