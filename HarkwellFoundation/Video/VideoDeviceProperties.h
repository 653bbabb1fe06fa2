// Reads of one video device property each, through the installed video hardware service. A failed
// read yields an empty result and writes one line to the system log ("Video Error <status>: ..."),
// except for the bad-object status ("!obj"), which stays silent. Nothing is cached. Any thread may
// call.
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

// Writes "Video Error " + the status in signed decimal (or "(unknown error)" when empty) + ": " +
// message, unless the status is "!obj".
HARKWELL_EXPORT void VideoDeviceLogWithStatus(std::optional<OSStatus> status,
                                              std::string_view message);

// Sets the system object's screen-capture switch to `includeScreenCaptureDevices` on every call,
// then lists the devices in the service's order; empty when the list cannot be read.
HARKWELL_EXPORT std::vector<std::uint32_t> VideoDeviceConnectedDeviceIDs(
    bool includeScreenCaptureDevices = true);
HARKWELL_EXPORT std::optional<std::string> VideoDeviceNameForDeviceID(std::uint32_t deviceID);
HARKWELL_EXPORT std::optional<std::string> VideoDeviceUIDForDeviceID(std::uint32_t deviceID);
HARKWELL_EXPORT std::optional<std::string> VideoDeviceModelUIDForDeviceID(std::uint32_t deviceID);
// The number of input (output) streams.
HARKWELL_EXPORT std::optional<std::uint64_t> VideoDeviceInputChannelCountForDeviceID(
    std::uint32_t deviceID);
HARKWELL_EXPORT std::optional<std::uint64_t> VideoDeviceOutputChannelCountForDeviceID(
    std::uint32_t deviceID);
HARKWELL_EXPORT std::optional<bool> VideoDeviceIsRunningForDeviceID(std::uint32_t deviceID);
// Codes outside the video transport table map to Unknown; a failed read is empty.
HARKWELL_EXPORT std::optional<MediaDeviceTransportType> VideoDeviceTransportTypeForDeviceID(
    std::uint32_t deviceID);

}  // namespace harkwell
