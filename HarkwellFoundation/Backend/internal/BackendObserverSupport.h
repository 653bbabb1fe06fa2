// Small pieces that AudioDeviceObserver and VideoDeviceObserver share: listener callbacks that
// hold their observer without keeping it alive, and the two stream counts read as one answer. The
// stored listener records are in Backend/DevicePropertyObserverRecords.h.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>

#include "HarkwellFoundation/Observer/MediaDeviceObserver.h"

namespace harkwell {

// A callback for a platform listener or a polling handler: it runs `note` on the observer while
// the observer is alive, and does nothing once it is gone (a notification may already be queued
// when the observer goes away). `observer` must come from weak_from_this() while it is owned.
std::function<void()> CallbackWhileObserverAlive(std::weak_ptr<MediaDeviceObserver> observer,
                                                 std::function<void(MediaDeviceObserver&)> note);

// The two listener callbacks both observers install: the device list changed, and a device's
// running state changed. Each holds the observer as CallbackWhileObserverAlive does.
std::function<void()> ConnectedDevicesChangedCallback(std::weak_ptr<MediaDeviceObserver> observer);
std::function<void()> IsRunningChangedCallback(std::weak_ptr<MediaDeviceObserver> observer,
                                               std::uint32_t deviceID);

// Both counts, or empty when either cannot be read. The output count is only asked for once the
// input count is known.
using StreamCountRead = std::optional<std::uint64_t> (*)(std::uint32_t deviceID);
std::optional<MediaDeviceChannelCounts> ReadChannelCounts(std::uint32_t deviceID,
                                                          StreamCountRead inputCount,
                                                          StreamCountRead outputCount);

}  // namespace harkwell
