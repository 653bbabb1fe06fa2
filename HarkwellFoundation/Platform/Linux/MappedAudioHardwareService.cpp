#include "HarkwellFoundation/Platform/Linux/MappedAudioHardwareService.h"

#include "HarkwellFoundation/Platform/AudioHardwareConstants.h"

#if defined(HARKWELL_WITH_DEVICE_RESERVATION)
#include "HarkwellFoundation/Platform/Linux/Reservation/internal/ReservationHogMode.h"
#endif

namespace harkwell {

void MappedAudioHardwareService::applyDevices(std::vector<MappedAudioDevice> devices) {
  // /proc is read here, on the server thread, never under the lock that reads wait on.
  for (MappedAudioDevice& device : devices) processDetails_.fill(device.consumers);
  processDetails_.endRound();
  std::vector<MappedAudioDeviceMirror::Change> changes;
  {
    MutexLock lock(mutex_);
    changes = mirror_.update(devices);
  }
  // Outside the lock: a listener that re-reads finds the new state and never waits on this one.
  for (const auto& change : changes) listeners_.notify(change.object, change.address);
}

#if defined(HARKWELL_WITH_DEVICE_RESERVATION)
ReservationHogMode MappedAudioHardwareService::hogMode(ObjectID object,
                                                       const PropertyAddress& address) const {
  std::uint32_t card = 0;
  MutexLock lock(mutex_);
  // The card is read before the object is made: argument order is unspecified.
  const OSStatus status = mirror_.hogModeSoundCard(object, address, &card);
  return ReservationHogMode(*reservation_, status, card);
}
#endif

std::optional<std::uint32_t> MappedAudioHardwareService::soundCardOfDevice(ObjectID device) const {
  std::uint32_t card = 0;
  MutexLock lock(mutex_);
  const PropertyAddress address{kAudioDevicePropertyHogMode, kAudioObjectPropertyScopeGlobal,
                                kAudioObjectPropertyElementMaster};
  if (!reservation_ || mirror_.hogModeSoundCard(device, address, &card) != kNoErr) {
    return std::nullopt;
  }
  return card;
}

// With a reservation, exclusive access ("oink") is answered from it, outside the lock; without
// one the mirror, which knows no such property, answers.
bool MappedAudioHardwareService::answersHogMode(const PropertyAddress& address) const {
  return address.mSelector == kAudioDevicePropertyHogMode && reservation_ != nullptr;
}

OSStatus MappedAudioHardwareService::getPropertyDataSize(ObjectID object,
                                                         const PropertyAddress& address,
                                                         std::uint32_t, const void*,
                                                         std::uint32_t* outDataSize) {
#if defined(HARKWELL_WITH_DEVICE_RESERVATION)
  if (answersHogMode(address)) return hogMode(object, address).dataSize(outDataSize);
#endif
  MutexLock lock(mutex_);
  return mirror_.getPropertyDataSize(object, address, outDataSize);
}

OSStatus MappedAudioHardwareService::getPropertyData(ObjectID object,
                                                     const PropertyAddress& address, std::uint32_t,
                                                     const void*, std::uint32_t* ioDataSize,
                                                     void* outData) {
#if defined(HARKWELL_WITH_DEVICE_RESERVATION)
  if (answersHogMode(address)) return hogMode(object, address).read(ioDataSize, outData);
#endif
  MutexLock lock(mutex_);
  return mirror_.getPropertyData(object, address, ioDataSize, outData);
}

OSStatus MappedAudioHardwareService::setPropertyData(ObjectID object,
                                                     const PropertyAddress& address, std::uint32_t,
                                                     const void*,
                                                     [[maybe_unused]] std::uint32_t dataSize,
                                                     [[maybe_unused]] void* data) {
#if defined(HARKWELL_WITH_DEVICE_RESERVATION)
  if (answersHogMode(address)) return hogMode(object, address).write(dataSize, data);
#endif
  MutexLock lock(mutex_);
  return mirror_.setPropertyDataStatus(object, address);
}

bool MappedAudioHardwareService::hasProperty(ObjectID object, const PropertyAddress& address) {
#if defined(HARKWELL_WITH_DEVICE_RESERVATION)
  if (answersHogMode(address)) return hogMode(object, address).exists();
#endif
  MutexLock lock(mutex_);
  return mirror_.hasProperty(object, address);
}

OSStatus MappedAudioHardwareService::addPropertyListenerBlock(ObjectID object,
                                                              const PropertyAddress& address,
                                                              std::shared_ptr<DispatchQueue> queue,
                                                              PlatformListenerBlockRef block) {
  {
    MutexLock lock(mutex_);
    if (!mirror_.hasObject(object)) return kAudioHardwareBadObjectError;
  }
  if (!listeners_.add(object, address, std::move(queue), std::move(block))) {
    return kAudioHardwareIllegalOperationError;
  }
  return kNoErr;
}

OSStatus MappedAudioHardwareService::removePropertyListenerBlock(
    ObjectID object, const PropertyAddress& address, std::shared_ptr<DispatchQueue> queue,
    PlatformListenerBlockRef block) {
  // A listener of a device that has left is removed all the same.
  if (listeners_.remove(object, address, queue, block)) return kNoErr;
  MutexLock lock(mutex_);
  return mirror_.hasObject(object) ? kAudioHardwareIllegalOperationError
                                   : kAudioHardwareBadObjectError;
}

}  // namespace harkwell
