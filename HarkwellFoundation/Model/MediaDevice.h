// MediaDevice: a value snapshot of one audio or video device, taken when an observer first saw it
// and patched when its running state or input source is re-read. It holds no reference to the
// platform device; copies are independent and compare field by field.
#pragma once

#include <cstdint>
#include <optional>
#include <ostream>
#include <string>

#include "HarkwellFoundation/HarkwellFoundationExport.h"
#include "HarkwellFoundation/Model/MediaEnumerations.h"

namespace harkwell {

class MediaDeviceHogMode;

// The unsupported reason for a device with these counts: NoInputChannels when there is no input,
// none when there is input only, InputAndOutputChannels when there are both. Only pure input
// devices are supported.
HARKWELL_EXPORT std::optional<MediaDeviceUnsupportedReason>
MediaDeviceUnsupportedReasonForChannelCounts(std::uint64_t inputChannelCount,
                                             std::uint64_t outputChannelCount);

// An aggregate, so designated initialisers name every field:
//   MediaDevice{.deviceID = 7, .mediaType = MediaType::Audio, .deviceUID = "mic", ...}
// Absent optional strings are std::nullopt, never empty strings.
struct HARKWELL_EXPORT MediaDevice {
  std::uint32_t deviceID = 0;  // the platform's object ID; the key of every cache
  MediaType mediaType = MediaType::Audio;
  std::string deviceUID;
  std::optional<std::string> modelUID;
  MediaDeviceTransportType transportType = MediaDeviceTransportType::Unknown;
  std::string name;
  std::optional<std::string> inputSourceName;
  std::uint64_t inputChannelCount = 0;   // number of input streams the platform lists
  std::uint64_t outputChannelCount = 0;  // number of output streams the platform lists
  bool isConnected = false;  // true in every cached record; false in a Disconnected copy
  bool isRunning = false;    // in use by some process anywhere on the system
  std::optional<MediaDeviceUnsupportedReason> unsupportedReason;

  bool isSupported() const { return !unsupportedReason.has_value(); }
  bool hasInputChannels() const { return inputChannelCount != 0; }

  // Exclusive access, through the hardware service of this device's media type. They use only
  // `deviceID` and `mediaType`, go to the platform on every call and may be called on any thread.
  bool enableHogMode() const;
  MediaDeviceHogMode currentHogMode() const;
  bool disableHogMode() const;

  friend bool operator==(const MediaDevice&, const MediaDevice&) = default;
};

HARKWELL_EXPORT std::ostream& operator<<(std::ostream& out, const MediaDevice& device);

}  // namespace harkwell
