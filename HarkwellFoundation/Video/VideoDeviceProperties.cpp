#include "HarkwellFoundation/Video/VideoDeviceProperties.h"

#include "HarkwellFoundation/Backend/internal/HardwareFailureLog.h"
#include "HarkwellFoundation/Backend/internal/HardwarePropertyReader.h"
#include "HarkwellFoundation/Backend/internal/TransportCodes.h"
#include "HarkwellFoundation/Backend/internal/VideoHardwareBackend.h"
#include "HarkwellFoundation/Platform/HardwareService.h"
#include "HarkwellFoundation/Platform/VideoHardwareConstants.h"

namespace harkwell {

namespace {

constexpr HardwareFailureLogFormat kVideoLogFormat{"Video Error ", kCMIOHardwareBadObjectError};

constexpr PropertyAddress Address(std::uint32_t selector,
                                  std::uint32_t scope = kCMIOObjectPropertyScopeGlobal) {
  return {selector, scope, kCMIOObjectPropertyElementMaster};
}

HardwarePropertyReader VideoReader() {
  return HardwarePropertyReader(VideoHardwareBackend());
}

std::optional<std::string> _stringPropertyValueForDeviceID(std::uint32_t deviceID,
                                                           std::uint32_t propertySelector,
                                                           std::string_view propertyName) {
  return VideoReader().readString(deviceID, Address(propertySelector), propertyName);
}

}  // namespace

const HardwareBackend& VideoHardwareBackend() {
  static constexpr HardwareBackend backend{
      .currentService = []() -> std::shared_ptr<HardwareService> {
        return CurrentVideoHardwareService();
      },
      .log = &VideoDeviceLogWithStatus,
  };
  return backend;
}

void VideoDeviceLogWithStatus(std::optional<OSStatus> status, std::string_view message) {
  LogHardwareFailure(kVideoLogFormat, status, message);
}

std::vector<std::uint32_t> VideoDeviceConnectedDeviceIDs(bool includeScreenCaptureDevices) {
  const HardwarePropertyReader reader = VideoReader();
  // The switch lives on the system object and is applied again before every enumeration; a
  // failure is logged and the enumeration goes on.
  std::uint32_t allow = includeScreenCaptureDevices ? 1 : 0;
  const OSStatus status = reader.service().setPropertyData(
      kCMIOObjectSystemObject, Address(kCMIOHardwarePropertyAllowScreenCaptureDevices), 0, nullptr,
      sizeof allow, &allow);
  if (status != kNoErr) reader.logFailure(status, "Unable to include screen capture devices");
  return reader.readObjectIDList(kCMIOObjectSystemObject, Address(kCMIOHardwarePropertyDevices));
}

std::optional<std::string> VideoDeviceNameForDeviceID(std::uint32_t deviceID) {
  return _stringPropertyValueForDeviceID(deviceID, kCMIOObjectPropertyName, "Name");
}

std::optional<std::string> VideoDeviceUIDForDeviceID(std::uint32_t deviceID) {
  return _stringPropertyValueForDeviceID(deviceID, kCMIODevicePropertyDeviceUID, "Device UID");
}

std::optional<std::string> VideoDeviceModelUIDForDeviceID(std::uint32_t deviceID) {
  return _stringPropertyValueForDeviceID(deviceID, kCMIODevicePropertyModelUID, "Model UID");
}

std::optional<std::uint64_t> VideoDeviceInputChannelCountForDeviceID(std::uint32_t deviceID) {
  return VideoReader().countElements(
      deviceID, Address(kCMIODevicePropertyStreams, kCMIODevicePropertyScopeInput),
      "input streams");
}

std::optional<std::uint64_t> VideoDeviceOutputChannelCountForDeviceID(std::uint32_t deviceID) {
  return VideoReader().countElements(
      deviceID, Address(kCMIODevicePropertyStreams, kCMIODevicePropertyScopeOutput),
      "output streams");
}

std::optional<bool> VideoDeviceIsRunningForDeviceID(std::uint32_t deviceID) {
  auto value = VideoReader().readUInt32(
      deviceID, Address(kCMIODevicePropertyDeviceIsRunningSomewhere), "running status");
  if (!value) return std::nullopt;
  return *value != 0;
}

std::optional<MediaDeviceTransportType> VideoDeviceTransportTypeForDeviceID(
    std::uint32_t deviceID) {
  auto code = VideoReader().readUInt32(deviceID, Address(kCMIODevicePropertyTransportType),
                                       "transport type");
  if (!code) return std::nullopt;
  return TransportForCode(kVideoTransportCodes, *code);
}

}  // namespace harkwell
