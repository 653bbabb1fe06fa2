// Registration of the video service's property listeners: the device list, and a device's running
// state. The callback runs on the given queue, once per notification, with no arguments. Any
// thread may add and remove.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>

#include "HarkwellFoundation/Backend/DevicePropertyObserver.h"
#include "HarkwellFoundation/HarkwellFoundationExport.h"
#include "HarkwellFoundation/Platform/DispatchQueue.h"

namespace harkwell {

using VideoDevicePropertyObserver = DevicePropertyObserver;

HARKWELL_EXPORT std::optional<VideoDevicePropertyObserver>
VideoDeviceAddObserverForConnectedDevices(std::shared_ptr<DispatchQueue> queue,
                                          std::function<void()> callback);
HARKWELL_EXPORT std::optional<VideoDevicePropertyObserver> VideoDeviceAddObserverForDeviceIsRunning(
    std::uint32_t deviceID, std::shared_ptr<DispatchQueue> queue, std::function<void()> callback);

HARKWELL_EXPORT bool VideoDeviceRemoveObserverForConnectedDevices(
    const VideoDevicePropertyObserver& observer);
HARKWELL_EXPORT bool VideoDeviceRemoveObserverForDeviceIsRunning(
    const VideoDevicePropertyObserver& observer);

}  // namespace harkwell
