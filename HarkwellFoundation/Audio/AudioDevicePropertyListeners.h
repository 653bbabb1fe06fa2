// Registration of the audio service's property listeners for the three changes the library
// follows: the device list, a device's running state and a device's selected input source. A
// successful add returns the record to hand back to the matching remove. The callback runs on the
// given queue, once per notification, with no arguments: callers capture what they need and
// re-read. Any thread may add and remove.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>

#include "HarkwellFoundation/Backend/DevicePropertyObserver.h"
#include "HarkwellFoundation/HarkwellFoundationExport.h"
#include "HarkwellFoundation/Platform/DispatchQueue.h"

namespace harkwell {

using AudioDevicePropertyObserver = DevicePropertyObserver;

// Empty (after a log line, except for "!obj") when the service refuses the registration.
HARKWELL_EXPORT std::optional<AudioDevicePropertyObserver>
AudioDeviceAddObserverForConnectedDevices(std::shared_ptr<DispatchQueue> queue,
                                          std::function<void()> callback);
HARKWELL_EXPORT std::optional<AudioDevicePropertyObserver> AudioDeviceAddObserverForDeviceIsRunning(
    std::uint32_t deviceID, std::shared_ptr<DispatchQueue> queue, std::function<void()> callback);
HARKWELL_EXPORT std::optional<AudioDevicePropertyObserver>
AudioDeviceAddObserverForSelectedInputSource(std::uint32_t deviceID,
                                             std::shared_ptr<DispatchQueue> queue,
                                             std::function<void()> callback);

// True when the service accepted the removal. The removal is asked for with a block made anew
// from the record's closure, never with the block the add registered.
HARKWELL_EXPORT bool AudioDeviceRemoveObserverForConnectedDevices(
    const AudioDevicePropertyObserver& observer);
HARKWELL_EXPORT bool AudioDeviceRemoveObserverForDeviceIsRunning(
    const AudioDevicePropertyObserver& observer);
HARKWELL_EXPORT bool AudioDeviceRemoveObserverForSelectedInputSource(
    const AudioDevicePropertyObserver& observer);

}  // namespace harkwell
