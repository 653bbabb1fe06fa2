#include "HarkwellFoundation/Model/MediaDevice.h"

#include "HarkwellFoundation/Model/internal/PrintOptionalText.h"

namespace harkwell {

std::optional<MediaDeviceUnsupportedReason> MediaDeviceUnsupportedReasonForChannelCounts(
    std::uint64_t inputChannelCount, std::uint64_t outputChannelCount) {
  if (inputChannelCount == 0) return MediaDeviceUnsupportedReason::NoInputChannels;
  if (outputChannelCount == 0) return std::nullopt;
  return MediaDeviceUnsupportedReason::InputAndOutputChannels;
}

std::ostream& operator<<(std::ostream& out, const MediaDevice& device) {
  out << "MediaDevice(deviceID: " << device.deviceID << ", mediaType: " << device.mediaType
      << ", deviceUID: \"" << device.deviceUID << "\", modelUID: ";
  PrintOptionalText(out, device.modelUID);
  out << ", transportType: " << device.transportType << ", name: \"" << device.name
      << "\", inputSourceName: ";
  PrintOptionalText(out, device.inputSourceName);
  out << ", inputChannelCount: " << device.inputChannelCount
      << ", outputChannelCount: " << device.outputChannelCount
      << ", isConnected: " << (device.isConnected ? "true" : "false")
      << ", isRunning: " << (device.isRunning ? "true" : "false") << ", unsupportedReason: ";
  if (device.unsupportedReason) {
    out << *device.unsupportedReason;
  } else {
    out << "nil";
  }
  return out << ')';
}

}  // namespace harkwell
