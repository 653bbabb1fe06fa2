#include "HarkwellFoundation/Consumers/MediaDeviceConsumers.h"

#include <cstdint>

#include "HarkwellFoundation/Platform/AudioHardwareConstants.h"
#include "HarkwellFoundation/Platform/DeviceConsumerCoding.h"
#include "HarkwellFoundation/Platform/SharedHardwareCodes.h"

namespace harkwell {

std::optional<std::vector<MediaDeviceConsumer>> ReadDeviceConsumers(HardwareService& service,
                                                                    ObjectID deviceID) {
  const PropertyAddress address{kAudioDevicePropertyConsumers, kAudioObjectPropertyScopeGlobal,
                                kAudioObjectPropertyElementMaster};
  std::uint32_t dataSize = 0;
  if (service.getPropertyDataSize(deviceID, address, 0, nullptr, &dataSize) != kNoErr) {
    return std::nullopt;
  }
  std::vector<std::uint8_t> data(dataSize);
  std::uint32_t ioDataSize = dataSize;
  if (service.getPropertyData(deviceID, address, 0, nullptr, &ioDataSize, data.data()) != kNoErr ||
      ioDataSize > dataSize) {
    return std::nullopt;
  }
  return DecodeDeviceConsumers(data.data(), ioDataSize);
}

std::optional<std::vector<MediaDeviceConsumer>> MediaDeviceConsumersForDevice(
    const MediaDevice& device) {
  if (device.mediaType == MediaType::Audio) {
    return ReadDeviceConsumers(*CurrentAudioHardwareService(), device.deviceID);
  }
  return ReadDeviceConsumers(*CurrentVideoHardwareService(), device.deviceID);
}

}  // namespace harkwell
