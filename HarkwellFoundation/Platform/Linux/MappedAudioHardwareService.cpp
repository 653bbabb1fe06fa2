#include "HarkwellFoundation/Platform/Linux/MappedAudioHardwareService.h"

#include "HarkwellFoundation/Platform/AudioHardwareConstants.h"

namespace harkwell {

void MappedAudioHardwareService::applyDevices(const std::vector<MappedAudioDevice>& devices) {
  std::vector<MappedAudioDeviceMirror::Change> changes;
  {
    MutexLock lock(mutex_);
    changes = mirror_.update(devices);
  }
  // Outside the lock: a listener that re-reads finds the new state and never waits on this one.
  for (const auto& change : changes) listeners_.notify(change.object, change.address);
}

OSStatus MappedAudioHardwareService::getPropertyDataSize(ObjectID object,
                                                         const PropertyAddress& address,
                                                         std::uint32_t, const void*,
                                                         std::uint32_t* outDataSize) {
  MutexLock lock(mutex_);
  return mirror_.getPropertyDataSize(object, address, outDataSize);
}

OSStatus MappedAudioHardwareService::getPropertyData(ObjectID object,
                                                     const PropertyAddress& address, std::uint32_t,
                                                     const void*, std::uint32_t* ioDataSize,
                                                     void* outData) {
  MutexLock lock(mutex_);
  return mirror_.getPropertyData(object, address, ioDataSize, outData);
}

OSStatus MappedAudioHardwareService::setPropertyData(ObjectID object,
                                                     const PropertyAddress& address, std::uint32_t,
                                                     const void*, std::uint32_t, void*) {
  MutexLock lock(mutex_);
  return mirror_.setPropertyDataStatus(object, address);
}

bool MappedAudioHardwareService::hasProperty(ObjectID object, const PropertyAddress& address) {
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
