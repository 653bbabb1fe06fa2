#include "HarkwellFoundation/Model/MediaDeviceHogMode.h"

#include <unistd.h>

#include "HarkwellFoundation/Model/MediaDevice.h"

namespace harkwell {

namespace {

constexpr std::int32_t kNoOwnerPID = -1;

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
