// Reading a device's consumers (see Model/MediaDeviceConsumer.h for what each service knows).
// These reads are separate from the device records and write nothing to the system log: a client
// that never calls them sees the library exactly as before.
#pragma once

#include <memory>
#include <optional>
#include <vector>

#include "HarkwellFoundation/HarkwellFoundationExport.h"
#include "HarkwellFoundation/Model/MediaDevice.h"
#include "HarkwellFoundation/Model/MediaDeviceConsumer.h"
#include "HarkwellFoundation/Platform/HardwareService.h"

namespace harkwell {

// The consumers of `deviceID` as `service` reports them now; empty when the service does not know
// consumers, the device is gone, or the answer is not a valid encoding. Any thread may call.
HARKWELL_EXPORT std::optional<std::vector<MediaDeviceConsumer>> ReadDeviceConsumers(
    HardwareService& service, ObjectID deviceID);

// The same through the installed service of the device's media type.
HARKWELL_EXPORT std::optional<std::vector<MediaDeviceConsumer>> MediaDeviceConsumersForDevice(
    const MediaDevice& device);

}  // namespace harkwell
