// Adding and removing a DevicePropertyObserver with a hardware service, done the same way by the
// audio and video listener functions. The record's listener closure calls the record's callback
// and ignores which addresses changed. Each add and each remove hands the service a platform block
// made anew around that closure, so a service that matches removals by block identity refuses
// every removal (it is logged and reported as false) while one that matches by the wrapped closure
// accepts it. Failures are written through the back end's log function; "!obj" stays silent.
// Any thread may call; nothing is kept here.
#pragma once

#include <functional>
#include <memory>
#include <optional>

#include "HarkwellFoundation/Backend/DevicePropertyObserver.h"
#include "HarkwellFoundation/Backend/internal/HardwareBackend.h"

namespace harkwell {

// Registers, with the back end's installed service, a listener on `object` at `address` that runs
// `callback` on `queue` once per notification. Empty when the service refuses ("Unable to register
// for property changes of device with ID <object>").
std::optional<DevicePropertyObserver> AddDevicePropertyObserver(
    const HardwareBackend& backend, ObjectID object, const PropertyAddress& address,
    std::shared_ptr<DispatchQueue> queue, std::function<void()> callback);

// Asks the back end's installed service to remove the record's listener at `address`; false when it
// refuses ("Unable to unregister for property changes of device with ID <object>").
bool RemoveDevicePropertyObserver(const HardwareBackend& backend,
                                  const DevicePropertyObserver& observer,
                                  const PropertyAddress& address);

}  // namespace harkwell
