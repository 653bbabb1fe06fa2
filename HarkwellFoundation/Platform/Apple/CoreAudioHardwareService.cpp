#include "HarkwellFoundation/Platform/Apple/CoreAudioHardwareService.h"

#include <CoreAudio/CoreAudio.h>

#include <algorithm>
#include <cstddef>
#include <type_traits>

#include "HarkwellFoundation/Platform/Apple/AppleListenerBlock.h"
#include "HarkwellFoundation/Platform/Apple/AppleSdkValues.h"
#include "HarkwellFoundation/Platform/Apple/CoreAudioConsumers.h"
#include "HarkwellFoundation/Platform/AudioHardwareConstants.h"
#include "HarkwellFoundation/Platform/DeviceConsumerCoding.h"
#include "HarkwellFoundation/Platform/PlatformString.h"
#include "HarkwellFoundation/Platform/PropertyValue.h"

namespace harkwell {
namespace {

// The library speaks the project's constants; on Apple they must be CoreAudio's own values, since
// they reach CoreAudio unchanged and CoreAudio's statuses come back unchanged.
static_assert(SameSdkValue(harkwell::kAudioObjectSystemObject, ::kAudioObjectSystemObject));
static_assert(SameSdkValue(harkwell::kAudioObjectPropertyElementMaster,
                           ::kAudioObjectPropertyElementMain));
static_assert(SameSdkValue(harkwell::kAudioObjectPropertyScopeGlobal,
                           ::kAudioObjectPropertyScopeGlobal));
static_assert(SameSdkValue(harkwell::kAudioObjectPropertyScopeInput,
                           ::kAudioObjectPropertyScopeInput));
static_assert(SameSdkValue(harkwell::kAudioObjectPropertyScopeOutput,
                           ::kAudioObjectPropertyScopeOutput));
static_assert(SameSdkValue(harkwell::kAudioHardwarePropertyDevices,
                           ::kAudioHardwarePropertyDevices));
static_assert(SameSdkValue(harkwell::kAudioObjectPropertyName, ::kAudioObjectPropertyName));
static_assert(SameSdkValue(harkwell::kAudioDevicePropertyDeviceUID,
                           ::kAudioDevicePropertyDeviceUID));
static_assert(SameSdkValue(harkwell::kAudioDevicePropertyModelUID, ::kAudioDevicePropertyModelUID));
static_assert(SameSdkValue(harkwell::kAudioDevicePropertyDataSource,
                           ::kAudioDevicePropertyDataSource));
static_assert(SameSdkValue(harkwell::kAudioDevicePropertyDataSourceNameForIDCFString,
                           ::kAudioDevicePropertyDataSourceNameForIDCFString));
static_assert(SameSdkValue(harkwell::kAudioDevicePropertyStreams, ::kAudioDevicePropertyStreams));
static_assert(SameSdkValue(harkwell::kAudioDevicePropertyDeviceIsRunningSomewhere,
                           ::kAudioDevicePropertyDeviceIsRunningSomewhere));
static_assert(SameSdkValue(harkwell::kAudioDevicePropertyTransportType,
                           ::kAudioDevicePropertyTransportType));
static_assert(SameSdkValue(harkwell::kAudioDevicePropertyHogMode, ::kAudioDevicePropertyHogMode));

static_assert(SameSdkValue(harkwell::kAudioDeviceTransportTypeUnknown,
                           ::kAudioDeviceTransportTypeUnknown));
static_assert(SameSdkValue(harkwell::kAudioDeviceTransportTypeBuiltIn,
                           ::kAudioDeviceTransportTypeBuiltIn));
static_assert(SameSdkValue(harkwell::kAudioDeviceTransportTypeAggregate,
                           ::kAudioDeviceTransportTypeAggregate));
static_assert(SameSdkValue(harkwell::kAudioDeviceTransportTypeAutoAggregate,
                           ::kAudioDeviceTransportTypeAutoAggregate));
static_assert(SameSdkValue(harkwell::kAudioDeviceTransportTypeVirtual,
                           ::kAudioDeviceTransportTypeVirtual));
static_assert(SameSdkValue(harkwell::kAudioDeviceTransportTypePCI, ::kAudioDeviceTransportTypePCI));
static_assert(SameSdkValue(harkwell::kAudioDeviceTransportTypeUSB, ::kAudioDeviceTransportTypeUSB));
static_assert(SameSdkValue(harkwell::kAudioDeviceTransportTypeFireWire,
                           ::kAudioDeviceTransportTypeFireWire));
static_assert(SameSdkValue(harkwell::kAudioDeviceTransportTypeBluetooth,
                           ::kAudioDeviceTransportTypeBluetooth));
static_assert(SameSdkValue(harkwell::kAudioDeviceTransportTypeBluetoothLE,
                           ::kAudioDeviceTransportTypeBluetoothLE));
static_assert(SameSdkValue(harkwell::kAudioDeviceTransportTypeHDMI,
                           ::kAudioDeviceTransportTypeHDMI));
static_assert(SameSdkValue(harkwell::kAudioDeviceTransportTypeDisplayPort,
                           ::kAudioDeviceTransportTypeDisplayPort));
static_assert(SameSdkValue(harkwell::kAudioDeviceTransportTypeAirPlay,
                           ::kAudioDeviceTransportTypeAirPlay));
static_assert(SameSdkValue(harkwell::kAudioDeviceTransportTypeAVB, ::kAudioDeviceTransportTypeAVB));
static_assert(SameSdkValue(harkwell::kAudioDeviceTransportTypeThunderbolt,
                           ::kAudioDeviceTransportTypeThunderbolt));

static_assert(SameSdkValue(harkwell::kAudioHardwareBadObjectError, ::kAudioHardwareBadObjectError));
static_assert(SameSdkValue(harkwell::kAudioHardwareUnknownPropertyError,
                           ::kAudioHardwareUnknownPropertyError));
static_assert(SameSdkValue(harkwell::kAudioHardwareBadPropertySizeError,
                           ::kAudioHardwareBadPropertySizeError));
static_assert(SameSdkValue(harkwell::kAudioHardwareIllegalOperationError,
                           ::kAudioHardwareIllegalOperationError));
static_assert(SameSdkValue(harkwell::kAudioHardwareUnspecifiedError,
                           ::kAudioHardwareUnspecifiedError));

// The library fills the project's value-translation record and CoreAudio reads it as its own.
static_assert(sizeof(harkwell::AudioValueTranslation) == sizeof(::AudioValueTranslation));
static_assert(offsetof(harkwell::AudioValueTranslation, mInputData) ==
              offsetof(::AudioValueTranslation, mInputData));
static_assert(offsetof(harkwell::AudioValueTranslation, mInputDataSize) ==
              offsetof(::AudioValueTranslation, mInputDataSize));
static_assert(offsetof(harkwell::AudioValueTranslation, mOutputData) ==
              offsetof(::AudioValueTranslation, mOutputData));
static_assert(offsetof(harkwell::AudioValueTranslation, mOutputDataSize) ==
              offsetof(::AudioValueTranslation, mOutputDataSize));

// A string property is written into the caller's buffer as one CFStringRef.
static_assert(std::is_same_v<PlatformStringRef, CFStringRef>);

AudioObjectPropertyAddress native(const PropertyAddress& address) {
  return ToNativeAddress<AudioObjectPropertyAddress>(address);
}

// The consumers property of a device: the service's own, not CoreAudio's.
bool IsConsumersProperty(ObjectID object, const PropertyAddress& address) {
  return address.mSelector == harkwell::kAudioDevicePropertyConsumers &&
         object != harkwell::kAudioObjectSystemObject;
}

// A device's consumers as the seam carries them, or the status that answers instead.
OSStatus ConsumersValue(ObjectID object, const PropertyAddress& address, PropertyValue* value) {
  if (address.mScope != harkwell::kAudioObjectPropertyScopeGlobal) {
    return harkwell::kAudioHardwareUnknownPropertyError;
  }
  // Only a device has consumers; CoreAudio knows whether the object is one.
  const AudioObjectPropertyAddress uid =
      native({harkwell::kAudioDevicePropertyDeviceUID, harkwell::kAudioObjectPropertyScopeGlobal,
              harkwell::kAudioObjectPropertyElementMaster});
  if (!AudioObjectHasProperty(object, &uid)) return harkwell::kAudioHardwareBadObjectError;
  const auto consumers = ReadCoreAudioDeviceConsumers(object);
  if (!consumers) return harkwell::kAudioHardwareUnknownPropertyError;
  *value = PropertyValue::Bytes(EncodeDeviceConsumers(*consumers));
  return kNoErr;
}

}  // namespace

OSStatus CoreAudioHardwareService::getPropertyDataSize(ObjectID object,
                                                       const PropertyAddress& address,
                                                       std::uint32_t qualifierDataSize,
                                                       const void* qualifierData,
                                                       std::uint32_t* outDataSize) {
  if (IsConsumersProperty(object, address)) {
    PropertyValue value = PropertyValue::Bytes({});
    const OSStatus status = ConsumersValue(object, address, &value);
    if (status != kNoErr) return status;
    if (!outDataSize) return harkwell::kAudioHardwareBadPropertySizeError;
    *outDataSize = value.dataSize();
    return kNoErr;
  }
  const AudioObjectPropertyAddress nativeAddress = native(address);
  return AudioObjectGetPropertyDataSize(object, &nativeAddress, qualifierDataSize, qualifierData,
                                        outDataSize);
}

OSStatus CoreAudioHardwareService::getPropertyData(ObjectID object, const PropertyAddress& address,
                                                   std::uint32_t qualifierDataSize,
                                                   const void* qualifierData,
                                                   std::uint32_t* ioDataSize, void* outData) {
  if (IsConsumersProperty(object, address)) {
    PropertyValue value = PropertyValue::Bytes({});
    const OSStatus status = ConsumersValue(object, address, &value);
    if (status != kNoErr) return status;
    if (!ioDataSize) return harkwell::kAudioHardwareBadPropertySizeError;
    return value.write(ioDataSize, outData);
  }
  const AudioObjectPropertyAddress nativeAddress = native(address);
  return AudioObjectGetPropertyData(object, &nativeAddress, qualifierDataSize, qualifierData,
                                    ioDataSize, outData);
}

OSStatus CoreAudioHardwareService::setPropertyData(ObjectID object, const PropertyAddress& address,
                                                   std::uint32_t qualifierDataSize,
                                                   const void* qualifierData,
                                                   std::uint32_t dataSize, void* data) {
  if (IsConsumersProperty(object, address)) {
    PropertyValue value = PropertyValue::Bytes({});
    const OSStatus status = ConsumersValue(object, address, &value);
    return status == kNoErr ? harkwell::kAudioHardwareIllegalOperationError : status;
  }
  const AudioObjectPropertyAddress nativeAddress = native(address);
  return AudioObjectSetPropertyData(object, &nativeAddress, qualifierDataSize, qualifierData,
                                    dataSize, data);
}

bool CoreAudioHardwareService::hasProperty(ObjectID object, const PropertyAddress& address) {
  if (IsConsumersProperty(object, address)) {
    PropertyValue value = PropertyValue::Bytes({});
    return ConsumersValue(object, address, &value) == kNoErr;
  }
  const AudioObjectPropertyAddress nativeAddress = native(address);
  return AudioObjectHasProperty(object, &nativeAddress) != 0;
}

OSStatus CoreAudioHardwareService::addPropertyListenerBlock(ObjectID object,
                                                            const PropertyAddress& address,
                                                            std::shared_ptr<DispatchQueue> queue,
                                                            PlatformListenerBlockRef block) {
  if (IsConsumersProperty(object, address)) {
    PropertyValue value = PropertyValue::Bytes({});
    OSStatus status = ConsumersValue(object, address, &value);
    if (status != kNoErr) return status;
    if (!queue || !block) return harkwell::kAudioHardwareIllegalOperationError;
    auto watch = CoreAudioConsumerWatch::start(object, queue, block->closure(), &status);
    if (!watch) return status;
    MutexLock lock(watchesMutex_);
    consumerWatches_.push_back(std::move(watch));
    return kNoErr;
  }
  return RegisterWithNewBlock<AudioObjectPropertyAddress, AudioObjectPropertyListenerBlock>(
      &AudioObjectAddPropertyListenerBlock, object, address, queue, block,
      harkwell::kAudioHardwareIllegalOperationError);
}

OSStatus CoreAudioHardwareService::removePropertyListenerBlock(ObjectID object,
                                                               const PropertyAddress& address,
                                                               std::shared_ptr<DispatchQueue> queue,
                                                               PlatformListenerBlockRef block) {
  if (IsConsumersProperty(object, address)) {
    std::shared_ptr<CoreAudioConsumerWatch> removed;
    {
      MutexLock lock(watchesMutex_);
      auto found =
          std::find_if(consumerWatches_.begin(), consumerWatches_.end(), [&](const auto& watch) {
            return block && watch->serves(object, block->closure(), queue.get());
          });
      if (found == consumerWatches_.end()) return harkwell::kAudioHardwareUnknownPropertyError;
      removed = std::move(*found);
      consumerWatches_.erase(found);
    }
    // Stopped outside the lock: CoreAudio may wait for a running callback of the watch.
    removed->stop();
    return kNoErr;
  }
  return RegisterWithNewBlock<AudioObjectPropertyAddress, AudioObjectPropertyListenerBlock>(
      &AudioObjectRemovePropertyListenerBlock, object, address, queue, block,
      harkwell::kAudioHardwareIllegalOperationError);
}

std::shared_ptr<AudioHardwareService> MakeDefaultAudioHardwareService() {
  return CoreAudioHardwareService::create();
}

}  // namespace harkwell
