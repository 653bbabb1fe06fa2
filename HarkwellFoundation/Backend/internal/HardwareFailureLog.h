// The failure line every back end writes when a hardware service call fails:
// "<Media> Error <status>: <message>", where the status is written in signed decimal (a
// four-character status such as "nope" too) or as "(unknown error)" when there is none. A call
// that failed with the service's bad-object status ("!obj": the object went away between two
// calls) writes nothing. The audio and video back ends wrap this in their public
// AudioDeviceLogWithStatus / VideoDeviceLogWithStatus; any thread may call.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "HarkwellFoundation/Platform/PropertyAddress.h"

namespace harkwell {

// A back end's public log function, handed to the shared read and listener helpers so that their
// failures are written in that back end's format.
using HardwareFailureLog = void (*)(std::optional<OSStatus> status, std::string_view message);

struct HardwareFailureLogFormat {
  std::string_view errorPrefix;  // "Audio Error " or "Video Error "
  OSStatus badObjectStatus;      // the status that is never logged
};

// Writes "<errorPrefix><status>: <message>" to the system log as it stands, with
// "(unknown error)" when there is no status; nothing for the bad-object status.
void LogHardwareFailure(const HardwareFailureLogFormat& format, std::optional<OSStatus> status,
                        std::string_view message);

// "... of device with ID <id>": the tail every per-device message shares; the ID is unsigned
// decimal.
std::string DeviceMessage(std::string_view head, ObjectID deviceID);

}  // namespace harkwell
