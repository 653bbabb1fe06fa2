// Reads of one audio device property each, through the installed audio hardware service. A failed
// read yields an empty result and writes one line to the system log ("Audio Error <status>: ..."),
// except for the bad-object status ("!obj", a device that has just gone away), which stays
// silent. Nothing is cached; every call goes to the service. Any thread may call.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "HarkwellFoundation/HarkwellFoundationExport.h"
#include "HarkwellFoundation/Model/MediaEnumerations.h"
#include "HarkwellFoundation/Platform/PropertyAddress.h"

namespace harkwell {

// Writes "Audio Error " + the status in signed decimal (or "(unknown error)" when empty) + ": " +
// message, unless the status is "!obj".
HARKWELL_EXPORT void AudioDeviceLogWithStatus(std::optional<OSStatus> status,
                                              std::string_view message);

// The device IDs in the service's order; empty when the list cannot be read.
HARKWELL_EXPORT std::vector<std::uint32_t> AudioDeviceConnectedDeviceIDs();
HARKWELL_EXPORT std::optional<std::string> AudioDeviceNameForDeviceID(std::uint32_t deviceID);
HARKWELL_EXPORT std::optional<std::string> AudioDeviceUIDForDeviceID(std::uint32_t deviceID);
HARKWELL_EXPORT std::optional<std::string> AudioDeviceModelUIDForDeviceID(std::uint32_t deviceID);
// The name of the selected input source; empty without a log line when the device has no
// data-source property.
HARKWELL_EXPORT std::optional<std::string> AudioDeviceSelectedInputSourceNameForDeviceID(
    std::uint32_t deviceID);
// The number of input (output) streams, from the data size of the stream list.
HARKWELL_EXPORT std::optional<std::uint64_t> AudioDeviceInputChannelCountForDeviceID(
    std::uint32_t deviceID);
HARKWELL_EXPORT std::optional<std::uint64_t> AudioDeviceOutputChannelCountForDeviceID(
    std::uint32_t deviceID);
// Whether any process on the system is using the device.
HARKWELL_EXPORT std::optional<bool> AudioDeviceIsRunningForDeviceID(std::uint32_t deviceID);
// Codes outside the audio transport table map to Unknown; a failed read is empty.
HARKWELL_EXPORT std::optional<MediaDeviceTransportType> AudioDeviceTransportTypeForDeviceID(
    std::uint32_t deviceID);

}  // namespace harkwell
