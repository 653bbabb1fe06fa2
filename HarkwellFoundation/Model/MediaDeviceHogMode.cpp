#include "HarkwellFoundation/Model/MediaDeviceHogMode.h"

#include <unistd.h>

#include "HarkwellFoundation/Audio/AudioHardwareBackend.h"
#include "HarkwellFoundation/Model/MediaDevice.h"
#include "HarkwellFoundation/Platform/AudioHardwareConstants.h"
#include "HarkwellFoundation/Platform/HardwarePropertyReader.h"
#include "HarkwellFoundation/Platform/VideoHardwareConstants.h"
#include "HarkwellFoundation/Video/VideoHardwareBackend.h"

namespace harkwell {

namespace {

constexpr std::int32_t kNoOwnerPID = -1;

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

std::optional<MediaDeviceHogMode> HogModeForDevice(const MediaDevice& device) {
  return device.mediaType == MediaType::Audio ? AudioDeviceHogModeForDeviceID(device.deviceID)
                                              : VideoDeviceHogModeForDeviceID(device.deviceID);
}

bool ToggleHogModeForDevice(const MediaDevice& device) {
  return device.mediaType == MediaType::Audio
             ? AudioDeviceToggleHogModeForDeviceID(device.deviceID)
             : VideoDeviceToggleHogModeForDeviceID(device.deviceID);
}

}  // namespace

MediaDeviceHogMode::MediaDeviceHogMode(std::int32_t pid)
    : kind_(pid == kNoOwnerPID ? Kind::NoProcess
            : pid == getpid()  ? Kind::CurrentProcess
                               : Kind::OtherProcess),
      pid_(pid) {}

std::ostream& operator<<(std::ostream& out, const MediaDeviceHogMode& mode) {
  switch (mode.kind()) {
    case MediaDeviceHogMode::Kind::NoProcess:
      return out << "NoProcess";
    case MediaDeviceHogMode::Kind::CurrentProcess:
      return out << "CurrentProcess";
    case MediaDeviceHogMode::Kind::OtherProcess:
      return out << "OtherProcess(pid: " << *mode.otherProcessPID() << ')';
  }
  return out;
}

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

// --- Exclusive access on a device record ---------------------------------------------------------
//
// Enable and disable are deliberately not mirror images: an unreadable state makes enable try the
// toggle, but makes disable report success without touching the device.

bool MediaDevice::enableHogMode() const {
  const auto mode = HogModeForDevice(*this);
  if (!mode) return ToggleHogModeForDevice(*this);
  switch (mode->kind()) {
    case MediaDeviceHogMode::Kind::NoProcess:
      return ToggleHogModeForDevice(*this);
    case MediaDeviceHogMode::Kind::CurrentProcess:
      return true;
    case MediaDeviceHogMode::Kind::OtherProcess:
      return false;
  }
  return false;
}

MediaDeviceHogMode MediaDevice::currentHogMode() const {
  return HogModeForDevice(*this).value_or(MediaDeviceHogMode::NoProcess());
}

bool MediaDevice::disableHogMode() const {
  const auto mode = HogModeForDevice(*this);
  if (!mode) return true;
  switch (mode->kind()) {
    case MediaDeviceHogMode::Kind::NoProcess:
      return true;
    case MediaDeviceHogMode::Kind::CurrentProcess:
      return !ToggleHogModeForDevice(*this);
    case MediaDeviceHogMode::Kind::OtherProcess:
      return false;
  }
  return false;
}

}  // namespace harkwell
