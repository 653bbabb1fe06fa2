#include "HarkwellFoundation/Platform/Linux/V4L2/V4L2PropertyMirror.h"

#include <algorithm>
#include <cstring>

#include "HarkwellFoundation/Platform/DeviceConsumerCoding.h"
#include "HarkwellFoundation/Platform/PropertyValue.h"
#include "HarkwellFoundation/Platform/VideoHardwareConstants.h"

namespace harkwell::v4l2 {
namespace {

constexpr PropertyAddress Global(std::uint32_t selector) {
  return {selector, kCMIOObjectPropertyScopeGlobal, kCMIOObjectPropertyElementMaster};
}

// One property's value, or the status that answers instead of it.
struct Value {
  OSStatus status = kCMIOHardwareUnknownPropertyError;
  PropertyValue value = PropertyValue::UInt32(0);

  static Value Failure(OSStatus status) { return Value{status}; }
  static Value UInt32(std::uint32_t number) { return Value{kNoErr, PropertyValue::UInt32(number)}; }
  static Value String(std::optional<std::string> text) {
    return Value{kNoErr, PropertyValue::String(std::move(text))};
  }
  static Value List(std::vector<std::uint32_t> list) {
    return Value{kNoErr, PropertyValue::IDList(std::move(list))};
  }
};

std::vector<std::uint32_t> Streams(ObjectID deviceID, std::uint32_t first, std::uint32_t count) {
  std::vector<std::uint32_t> ids;
  for (std::uint32_t i = 0; i < count; ++i)
    ids.push_back(PropertyMirror::streamID(deviceID, first + i));
  return ids;
}

Value DeviceValue(const PublishedDevice& device, const PropertyAddress& address) {
  switch (address.mSelector) {
    case kCMIOObjectPropertyName:
      return Value::String(device.name);
    case kCMIODevicePropertyDeviceUID:
      return Value::String(device.uid);
    case kCMIODevicePropertyModelUID:
      return Value::String(device.modelUID);
    case kCMIODevicePropertyTransportType:
      return Value::UInt32(device.transportType);
    case kCMIODevicePropertyDeviceIsRunningSomewhere:
      return Value::UInt32(device.isRunningSomewhere ? 1 : 0);
    case kCMIODevicePropertyConsumers:
      if (address.mScope != kCMIOObjectPropertyScopeGlobal) {
        return Value::Failure(kCMIOHardwareUnknownPropertyError);
      }
      return Value{kNoErr, PropertyValue::Bytes(EncodeDeviceConsumers(device.consumers))};
    case kCMIODevicePropertyStreams:
      // Input streams are numbered first, then output streams.
      if (address.mScope == kCMIODevicePropertyScopeInput) {
        return Value::List(Streams(device.deviceID, 0, device.inputStreamCount));
      }
      if (address.mScope == kCMIODevicePropertyScopeOutput) {
        return Value::List(
            Streams(device.deviceID, device.inputStreamCount, device.outputStreamCount));
      }
      if (address.mScope == kCMIOObjectPropertyScopeGlobal) {
        return Value::List(
            Streams(device.deviceID, 0, device.inputStreamCount + device.outputStreamCount));
      }
      return Value::Failure(kCMIOHardwareUnknownPropertyError);
    default:
      // Hog mode included: V4L2 has no exclusive-access owner to report.
      return Value::Failure(kCMIOHardwareUnknownPropertyError);
  }
}

void AppendDeviceChanges(const PublishedDevice& before, const PublishedDevice& after,
                         std::vector<PropertyChange>& changes) {
  const ObjectID id = after.deviceID;
  auto note = [&](std::uint32_t selector, std::uint32_t scope = kCMIOObjectPropertyScopeGlobal) {
    changes.push_back({id, PropertyAddress{selector, scope, kCMIOObjectPropertyElementMaster}});
  };
  if (before.name != after.name) note(kCMIOObjectPropertyName);
  // The service keys device IDs by the UID, with a line break and the sysfs path appended for a
  // second camera claiming the same one, so an ID changes its UID only when sysfs names hold line
  // breaks. Compared all the same: the mirror reports every change, whatever its caller does.
  if (before.uid != after.uid) note(kCMIODevicePropertyDeviceUID);
  if (before.modelUID != after.modelUID) note(kCMIODevicePropertyModelUID);
  if (before.transportType != after.transportType) note(kCMIODevicePropertyTransportType);
  const bool inputsChanged = before.inputStreamCount != after.inputStreamCount;
  const bool outputsChanged = before.outputStreamCount != after.outputStreamCount;
  if (inputsChanged) note(kCMIODevicePropertyStreams, kCMIODevicePropertyScopeInput);
  if (inputsChanged || outputsChanged) {
    note(kCMIODevicePropertyStreams, kCMIODevicePropertyScopeOutput);
    note(kCMIODevicePropertyStreams, kCMIOObjectPropertyScopeGlobal);
  }
  if (before.isRunningSomewhere != after.isRunningSomewhere) {
    note(kCMIODevicePropertyDeviceIsRunningSomewhere);
  }
  if (before.consumers != after.consumers) note(kCMIODevicePropertyConsumers);
}

}  // namespace

std::uint32_t PropertyMirror::streamID(ObjectID deviceID, std::uint32_t stream) {
  // Stream IDs have the top bit set; device IDs, counted up from 2, never get that far, so a
  // stream ID never equals a device ID. Below the top bit each device has a block of 1024 numbers:
  // room for 1023 streams (a node counts at most twice and the kernel has 256 video node numbers),
  // unique among the first two million device IDs, far more than a service ever gives out.
  constexpr std::uint32_t kStreamRange = 0x80000000u;
  constexpr unsigned kStreamBits = 10;
  constexpr std::uint32_t kStreamMask = (1u << kStreamBits) - 1;
  const std::uint32_t offset = (deviceID << kStreamBits) | ((stream + 1) & kStreamMask);
  return kStreamRange | (offset & ~kStreamRange);
}

std::vector<PropertyChange> PropertyMirror::publishDevices(std::vector<PublishedDevice> devices) {
  std::sort(devices.begin(), devices.end(),
            [](const auto& a, const auto& b) { return a.deviceID < b.deviceID; });
  std::vector<PropertyChange> changes;
  MutexLock lock(mutex_);
  bool listChanged = devices.size() != devices_.size();
  for (const PublishedDevice& after : devices) {
    if (const PublishedDevice* before = findLocked(after.deviceID)) {
      AppendDeviceChanges(*before, after, changes);
    } else {
      listChanged = true;
    }
  }
  if (listChanged)
    changes.push_back({kCMIOObjectSystemObject, Global(kCMIOHardwarePropertyDevices)});
  devices_ = std::move(devices);
  return changes;
}

const PublishedDevice* PropertyMirror::findLocked(ObjectID deviceID) const {
  auto found =
      std::lower_bound(devices_.begin(), devices_.end(), deviceID,
                       [](const PublishedDevice& d, ObjectID id) { return d.deviceID < id; });
  return found != devices_.end() && found->deviceID == deviceID ? &*found : nullptr;
}

namespace {

Value ValueLocked(const std::vector<PublishedDevice>& devices, const PublishedDevice* device,
                  std::uint32_t screenCaptureSwitch, ObjectID object,
                  const PropertyAddress& address) {
  if (object == kCMIOObjectSystemObject) {
    if (address.mSelector == kCMIOHardwarePropertyDevices) {
      std::vector<std::uint32_t> ids;
      ids.reserve(devices.size());
      for (const auto& each : devices) ids.push_back(each.deviceID);
      return Value::List(std::move(ids));
    }
    if (address.mSelector == kCMIOHardwarePropertyAllowScreenCaptureDevices) {
      return Value::UInt32(screenCaptureSwitch);
    }
    return Value::Failure(kCMIOHardwareUnknownPropertyError);
  }
  if (!device) return Value::Failure(kCMIOHardwareBadObjectError);
  return DeviceValue(*device, address);
}

}  // namespace

OSStatus PropertyMirror::checkProperty(ObjectID object, const PropertyAddress& address) const {
  MutexLock lock(mutex_);
  return ValueLocked(devices_, findLocked(object), screenCaptureSwitch_, object, address).status;
}

OSStatus PropertyMirror::dataSize(ObjectID object, const PropertyAddress& address,
                                  std::uint32_t* outDataSize) const {
  Value value;
  {
    MutexLock lock(mutex_);
    value = ValueLocked(devices_, findLocked(object), screenCaptureSwitch_, object, address);
  }
  if (value.status != kNoErr) return value.status;
  if (!outDataSize) return kCMIOHardwareBadPropertySizeError;
  *outDataSize = value.value.dataSize();
  return kNoErr;
}

OSStatus PropertyMirror::data(ObjectID object, const PropertyAddress& address,
                              std::uint32_t* ioDataSize, void* outData) const {
  Value value;
  {
    MutexLock lock(mutex_);
    value = ValueLocked(devices_, findLocked(object), screenCaptureSwitch_, object, address);
  }
  if (value.status != kNoErr) return value.status;
  if (!ioDataSize) return kCMIOHardwareBadPropertySizeError;
  // Without a buffer nothing fits.
  if (!outData) {
    std::uint32_t none = 0;
    const OSStatus status = value.value.write(&none, nullptr);
    if (status == kNoErr) *ioDataSize = none;
    return status;
  }
  return value.value.write(ioDataSize, outData);
}

OSStatus PropertyMirror::setData(ObjectID object, const PropertyAddress& address,
                                 std::uint32_t dataSize, const void* data,
                                 std::vector<PropertyChange>* changes) {
  MutexLock lock(mutex_);
  const Value current =
      ValueLocked(devices_, findLocked(object), screenCaptureSwitch_, object, address);
  if (current.status != kNoErr) return current.status;
  if (object != kCMIOObjectSystemObject ||
      address.mSelector != kCMIOHardwarePropertyAllowScreenCaptureDevices) {
    return kCMIOHardwareIllegalOperationError;
  }
  // The screen-capture switch: kept so reads answer it, otherwise without effect (V4L2 has no
  // screen-capture devices to include or leave out).
  if (!data || dataSize != sizeof(std::uint32_t)) return kCMIOHardwareBadPropertySizeError;
  std::uint32_t value;
  std::memcpy(&value, data, sizeof value);
  if (value != screenCaptureSwitch_ && changes) {
    changes->push_back({kCMIOObjectSystemObject, address});
  }
  screenCaptureSwitch_ = value;
  return kNoErr;
}

}  // namespace harkwell::v4l2
