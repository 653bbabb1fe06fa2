// The JSON `harkwell` prints for who uses a device: each consumer an object with every field of
// MediaDeviceConsumer under its own name, in its declared order (enumerations as case names,
// absent texts as null, `feeds` an array of consumer objects, empty for most kinds).
#pragma once

#include <chrono>
#include <vector>

#include "HarkwellFoundation/Model/MediaDeviceConsumer.h"
#include "tools/harkwell/DeviceJson.h"

namespace harkwell::cli {

Json ConsumerToJson(const MediaDeviceConsumer& consumer);
Json ConsumersToJson(const std::vector<MediaDeviceConsumer>& consumers);

// A device in `list --json`: its twelve fields, then "consumers" when someone uses it (a device
// nobody uses, or whose service cannot tell, prints as it always did).
Json ListedDeviceToJson(const MediaDevice& device,
                        const std::vector<MediaDeviceConsumer>& consumers);

// {"time": ..., "type": "consumers", "device": {...}, "consumers": [...]}: a `watch --json` line
// for a change of who uses a device; "consumers" is empty once nobody does.
Json ConsumersLine(std::chrono::system_clock::time_point time, const MediaDevice& device,
                   const std::vector<MediaDeviceConsumer>& consumers);

}  // namespace harkwell::cli
