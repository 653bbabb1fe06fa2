#include "HarkwellFoundation/Backend/internal/DevicePropertyRegistration.h"

#include <cstdint>
#include <string_view>
#include <utility>

namespace harkwell {

namespace {

using ListenerCall = OSStatus (HardwareService::*)(ObjectID, const PropertyAddress&,
                                                   std::shared_ptr<DispatchQueue>,
                                                   PlatformListenerBlockRef);

// Hands the service a block made anew around the record's closure; the service keeps its own
// reference to it, ours goes when this returns. The block of an earlier call is never reused.
bool _callWithNewBlock(HardwareService& service, ListenerCall call, HardwareFailureLog log,
                       std::string_view failureHead, const DevicePropertyObserver& observer,
                       const PropertyAddress& address) {
  const OSStatus status = (service.*call)(observer.deviceID, address, observer.callbackQueue,
                                          PlatformListenerBlock::copy(observer.listenerBlock));
  if (status == kNoErr) return true;
  log(status, DeviceMessage(failureHead, observer.deviceID));
  return false;
}

bool _registerObserver(HardwareService& service, HardwareFailureLog log,
                       const DevicePropertyObserver& observer, const PropertyAddress& address) {
  return _callWithNewBlock(service, &HardwareService::addPropertyListenerBlock, log,
                           "Unable to register for property changes", observer, address);
}

bool _unregisterObserver(HardwareService& service, HardwareFailureLog log,
                         const DevicePropertyObserver& observer, const PropertyAddress& address) {
  return _callWithNewBlock(service, &HardwareService::removePropertyListenerBlock, log,
                           "Unable to unregister for property changes", observer, address);
}

}  // namespace

std::optional<DevicePropertyObserver> AddDevicePropertyObserver(
    const HardwareBackend& backend, ObjectID object, const PropertyAddress& address,
    std::shared_ptr<DispatchQueue> queue, std::function<void()> callback) {
  // The closure already runs on the record's queue (the service is given that queue), so it calls
  // the callback directly.
  auto listener = std::make_shared<const PropertyListener>(
      [callback](std::uint32_t, const PropertyAddress*) { callback(); });
  DevicePropertyObserver observer{
      .deviceID = object,
      .callback = std::move(callback),
      .callbackQueue = std::move(queue),
      .listenerBlock = std::move(listener),
  };
  if (!_registerObserver(*backend.currentService(), backend.log, observer, address)) {
    return std::nullopt;
  }
  return observer;
}

bool RemoveDevicePropertyObserver(const HardwareBackend& backend,
                                  const DevicePropertyObserver& observer,
                                  const PropertyAddress& address) {
  return _unregisterObserver(*backend.currentService(), backend.log, observer, address);
}

}  // namespace harkwell
