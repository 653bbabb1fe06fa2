#include "HarkwellFoundation/Backend/internal/HardwarePropertyReader.h"

#include "HarkwellFoundation/Platform/PlatformString.h"

namespace harkwell {

namespace {
constexpr std::uint32_t kUInt32Size = sizeof(std::uint32_t);
constexpr std::uint32_t kStringReferenceSize = sizeof(PlatformStringRef);
static_assert(kStringReferenceSize == 8, "string references are read as 8 bytes");
}  // namespace

std::optional<std::uint32_t> HardwarePropertyReader::readUInt32(ObjectID object,
                                                                const PropertyAddress& address,
                                                                std::string_view what) const {
  std::uint32_t value = 0;
  std::uint32_t dataSize = kUInt32Size;
  const OSStatus status = service_->getPropertyData(object, address, 0, nullptr, &dataSize, &value);
  if (status != kNoErr) {
    logFailure(status, DeviceMessage("Unable to get " + std::string(what), object));
    return std::nullopt;
  }
  return value;
}

std::optional<std::string> HardwarePropertyReader::readString(ObjectID object,
                                                              const PropertyAddress& address,
                                                              std::string_view propertyName) const {
  // The reference is owned here from the moment the service writes it, on every path.
  OwnedPlatformString string;
  std::uint32_t dataSize = kStringReferenceSize;
  const OSStatus status =
      service_->getPropertyData(object, address, 0, nullptr, &dataSize, string.slot());
  if (status != kNoErr) {
    logFailure(status, DeviceMessage("Unable to get " + std::string(propertyName), object));
    return std::nullopt;
  }
  if (string.get() == nullptr) {
    logFailure(std::nullopt, std::string(propertyName) + " for device with ID " +
                                 std::to_string(object) + " is nil");
    return std::nullopt;
  }
  return PlatformStringText(string.get());
}

std::optional<std::uint64_t> HardwarePropertyReader::countElements(ObjectID object,
                                                                   const PropertyAddress& address,
                                                                   std::string_view what) const {
  std::uint32_t dataSize = 0;
  const OSStatus status = service_->getPropertyDataSize(object, address, 0, nullptr, &dataSize);
  if (status != kNoErr) {
    logFailure(status, DeviceMessage("Unable to get " + std::string(what), object));
    return std::nullopt;
  }
  return dataSize / kUInt32Size;
}

std::vector<std::uint32_t> HardwarePropertyReader::readObjectIDList(
    ObjectID object, const PropertyAddress& address) const {
  std::uint32_t dataSize = 0;
  OSStatus status = service_->getPropertyDataSize(object, address, 0, nullptr, &dataSize);
  if (status != kNoErr) {
    logFailure(status, "Unable to get device count");
    return {};
  }
  const std::uint32_t count = dataSize / kUInt32Size;
  // The read is asked for with the reported size even when it is not a whole number of IDs; the
  // buffer is rounded up so that a service filling the odd tail bytes stays inside it. Only the
  // whole IDs are used.
  std::vector<std::uint32_t> buffer((dataSize + kUInt32Size - 1) / kUInt32Size);
  std::uint32_t ioDataSize = dataSize;
  status = service_->getPropertyData(object, address, 0, nullptr, &ioDataSize, buffer.data());
  if (status != kNoErr) {
    logFailure(status, "Unable to get device IDs");
    return {};
  }
  buffer.resize(count);
  return buffer;
}

}  // namespace harkwell
