// The exclusive-access reads and toggles declared with MediaDeviceHogMode: one hog-mode property
// per media type, read and written through that media type's installed hardware service.
#include <unistd.h>

#include "HarkwellFoundation/Backend/internal/AudioHardwareBackend.h"
#include "HarkwellFoundation/Backend/internal/HardwarePropertyReader.h"
#include "HarkwellFoundation/Backend/internal/VideoHardwareBackend.h"
#include "HarkwellFoundation/Model/MediaDeviceHogMode.h"
#include "HarkwellFoundation/Platform/AudioHardwareConstants.h"
#include "HarkwellFoundation/Platform/VideoHardwareConstants.h"

namespace harkwell {

namespace {

constexpr PropertyAddress kAudioHogModeAddress{kAudioDevicePropertyHogMode,
                                               kAudioObjectPropertyScopeGlobal,
                                               kAudioObjectPropertyElementMaster};
constexpr PropertyAddress kVideoHogModeAddress{
    kCMIODevicePropertyHogMode, kCMIOObjectPropertyScopeGlobal, kCMIOObjectPropertyElementMaster};

// The owner's pid is a signed 32-bit value read as 4 bytes.
std::optional<MediaDeviceHogMode> ReadHogMode(const HardwarePropertyReader& reader,
                                              std::uint32_t deviceID,
                                              const PropertyAddress& address) {
  auto pid = reader.readUInt32(deviceID, address, "hog mode PID");
  if (!pid) return std::nullopt;
  return MediaDeviceHogMode(static_cast<std::int32_t>(*pid));
}

// Any write toggles: the service takes a free device, releases one this process holds, leaves one
// another process holds, and writes the owner afterwards back into the value. A failed write leaves
// the 0 in place, which is never this process.
bool ToggleHogMode(const HardwarePropertyReader& reader, std::uint32_t deviceID,
                   const PropertyAddress& address) {
  std::int32_t owner = 0;
  const OSStatus status =
      reader.service().setPropertyData(deviceID, address, 0, nullptr, sizeof owner, &owner);
  if (status != kNoErr) {
    reader.logFailure(status, DeviceMessage("Unable to set hog mode PID", deviceID));
  }
  return owner == getpid();
}

}  // namespace

std::optional<MediaDeviceHogMode> AudioDeviceHogModeForDeviceID(std::uint32_t deviceID) {
  return ReadHogMode(HardwarePropertyReader(AudioHardwareBackend()), deviceID,
                     kAudioHogModeAddress);
}

std::optional<MediaDeviceHogMode> VideoDeviceHogModeForDeviceID(std::uint32_t deviceID) {
  return ReadHogMode(HardwarePropertyReader(VideoHardwareBackend()), deviceID,
                     kVideoHogModeAddress);
}

bool AudioDeviceToggleHogModeForDeviceID(std::uint32_t deviceID) {
  return ToggleHogMode(HardwarePropertyReader(AudioHardwareBackend()), deviceID,
                       kAudioHogModeAddress);
}

bool VideoDeviceToggleHogModeForDeviceID(std::uint32_t deviceID) {
  return ToggleHogMode(HardwarePropertyReader(VideoHardwareBackend()), deviceID,
                       kVideoHogModeAddress);
}

}  // namespace harkwell
