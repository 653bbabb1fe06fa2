// The JSON the program prints: device objects, and the lines of `harkwell watch --json`. Objects
// keep their keys in the order written here (nlohmann::ordered_json), so output reads the same
// way every time.
#pragma once

#include <chrono>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "HarkwellFoundation/Model/MediaDevice.h"
#include "HarkwellFoundation/Model/MediaDeviceHogMode.h"

namespace harkwell::cli {

using Json = nlohmann::ordered_json;

// The twelve fields of the record under their own names, in their declared order; enumerations
// as their case names; absent optionals as null.
Json DeviceToJson(const MediaDevice& device);

// "2026-11-22T01:52:20.123456Z": UTC, microseconds, as the watch lines carry it.
std::string UtcTimestamp(std::chrono::system_clock::time_point time);

// {"time": ..., "type": type}: how every `watch --json` line starts.
Json WatchLine(std::chrono::system_clock::time_point time, std::string_view type);
// {"time": ..., "type": "updating", "finished": false}
Json UpdatingLine(std::chrono::system_clock::time_point time, bool finished);
// {"time": ..., "type": "event", "event": "ChangedRunning", "device": {...}}
Json EventLine(std::chrono::system_clock::time_point time, MediaDeviceEvent event,
               const MediaDevice& device);

// {"hogMode": "OtherProcess", "pid": 12}; pid is null unless another process holds the device.
Json HogModeToJson(const MediaDeviceHogMode& mode);

// One line of output: compact, and with invalid UTF-8 from a device replaced rather than making
// the whole dump fail.
std::string DumpLine(const Json& value);

}  // namespace harkwell::cli
