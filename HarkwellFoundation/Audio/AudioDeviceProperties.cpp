#include "HarkwellFoundation/Audio/AudioDeviceProperties.h"

#include "HarkwellFoundation/Backend/internal/AudioHardwareBackend.h"
#include "HarkwellFoundation/Backend/internal/HardwareFailureLog.h"
#include "HarkwellFoundation/Backend/internal/HardwarePropertyReader.h"
#include "HarkwellFoundation/Backend/internal/TransportCodes.h"
#include "HarkwellFoundation/Platform/AudioHardwareConstants.h"
#include "HarkwellFoundation/Platform/HardwareService.h"
#include "HarkwellFoundation/Platform/PlatformString.h"

namespace harkwell {

namespace {

constexpr HardwareFailureLogFormat kAudioLogFormat{"Audio Error ", kAudioHardwareBadObjectError};

constexpr PropertyAddress Address(std::uint32_t selector, std::uint32_t scope) {
  return {selector, scope, kAudioObjectPropertyElementMaster};
}

HardwarePropertyReader AudioReader() {
  return HardwarePropertyReader(AudioHardwareBackend());
}

std::optional<std::string> _stringPropertyValueForDeviceID(std::uint32_t deviceID,
                                                           std::uint32_t propertySelector,
                                                           std::string_view propertyName) {
  return AudioReader().readString(
      deviceID, Address(propertySelector, kAudioObjectPropertyScopeGlobal), propertyName);
}

}  // namespace

const HardwareBackend& AudioHardwareBackend() {
  static constexpr HardwareBackend backend{
      .currentService = []() -> std::shared_ptr<HardwareService> {
        return CurrentAudioHardwareService();
      },
      .log = &AudioDeviceLogWithStatus,
  };
  return backend;
}

void AudioDeviceLogWithStatus(std::optional<OSStatus> status, std::string_view message) {
  LogHardwareFailure(kAudioLogFormat, status, message);
}

std::vector<std::uint32_t> AudioDeviceConnectedDeviceIDs() {
  return AudioReader().readObjectIDList(
      kAudioObjectSystemObject,
      Address(kAudioHardwarePropertyDevices, kAudioObjectPropertyScopeGlobal));
}

std::optional<std::string> AudioDeviceNameForDeviceID(std::uint32_t deviceID) {
  return _stringPropertyValueForDeviceID(deviceID, kAudioObjectPropertyName, "Name");
}

std::optional<std::string> AudioDeviceUIDForDeviceID(std::uint32_t deviceID) {
  return _stringPropertyValueForDeviceID(deviceID, kAudioDevicePropertyDeviceUID, "Device UID");
}

std::optional<std::string> AudioDeviceModelUIDForDeviceID(std::uint32_t deviceID) {
  return _stringPropertyValueForDeviceID(deviceID, kAudioDevicePropertyModelUID, "Model UID");
}

std::optional<std::string> AudioDeviceSelectedInputSourceNameForDeviceID(std::uint32_t deviceID) {
  const std::shared_ptr<AudioHardwareService> service = CurrentAudioHardwareService();
  const PropertyAddress sourceAddress =
      Address(kAudioDevicePropertyDataSource, kAudioObjectPropertyScopeInput);
  const PropertyAddress nameAddress =
      Address(kAudioDevicePropertyDataSourceNameForIDCFString, kAudioObjectPropertyScopeInput);

  // A device without selectable sources is normal, not a failure: nothing is logged.
  if (!service->hasProperty(deviceID, sourceAddress)) return std::nullopt;
  if (!service->hasProperty(deviceID, nameAddress)) return std::nullopt;

  const HardwarePropertyReader reader(service, &AudioDeviceLogWithStatus);
  std::optional<std::uint32_t> sourceID =
      reader.readUInt32(deviceID, sourceAddress, "default source");
  if (!sourceID) return std::nullopt;

  // The name is read through a translation record: in, the 4-byte source ID; out, a string
  // reference that the service fills in and the caller owns.
  OwnedPlatformString name;
  AudioValueTranslation translation{
      .mInputData = &*sourceID,
      .mInputDataSize = sizeof(std::uint32_t),
      .mOutputData = name.slot(),
      .mOutputDataSize = sizeof(PlatformStringRef),
  };
  std::uint32_t dataSize = kAudioValueTranslationDataSize;
  const OSStatus status =
      service->getPropertyData(deviceID, nameAddress, 0, nullptr, &dataSize, &translation);
  if (status != kNoErr) {
    AudioDeviceLogWithStatus(status, DeviceMessage("Unable to get default source name", deviceID));
    return std::nullopt;
  }
  if (name.get() == nullptr) {
    AudioDeviceLogWithStatus(std::nullopt,
                             DeviceMessage("Name for default source", deviceID) + " is nil");
    return std::nullopt;
  }
  return PlatformStringText(name.get());
}

std::optional<std::uint64_t> AudioDeviceInputChannelCountForDeviceID(std::uint32_t deviceID) {
  return AudioReader().countElements(
      deviceID, Address(kAudioDevicePropertyStreams, kAudioObjectPropertyScopeInput),
      "input streams");
}

std::optional<std::uint64_t> AudioDeviceOutputChannelCountForDeviceID(std::uint32_t deviceID) {
  return AudioReader().countElements(
      deviceID, Address(kAudioDevicePropertyStreams, kAudioObjectPropertyScopeOutput),
      "output streams");
}

std::optional<bool> AudioDeviceIsRunningForDeviceID(std::uint32_t deviceID) {
  auto value = AudioReader().readUInt32(
      deviceID,
      Address(kAudioDevicePropertyDeviceIsRunningSomewhere, kAudioObjectPropertyScopeGlobal),
      "running status");
  if (!value) return std::nullopt;
  return *value != 0;
}

std::optional<MediaDeviceTransportType> AudioDeviceTransportTypeForDeviceID(
    std::uint32_t deviceID) {
  auto code = AudioReader().readUInt32(
      deviceID, Address(kAudioDevicePropertyTransportType, kAudioObjectPropertyScopeGlobal),
      "transport type");
  if (!code) return std::nullopt;
  return TransportForCode(kAudioTransportCodes, *code);
}

}  // namespace harkwell
