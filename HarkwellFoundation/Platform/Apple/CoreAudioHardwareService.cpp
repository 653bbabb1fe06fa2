#include "HarkwellFoundation/Platform/Apple/CoreAudioHardwareService.h"

#include <CoreAudio/CoreAudio.h>

#include <cstddef>
#include <type_traits>

#include "HarkwellFoundation/Platform/Apple/AppleListenerBlock.h"
#include "HarkwellFoundation/Platform/Apple/AppleSdkValues.h"
#include "HarkwellFoundation/Platform/AudioHardwareConstants.h"
#include "HarkwellFoundation/Platform/PlatformString.h"

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

}  // namespace

OSStatus CoreAudioHardwareService::getPropertyDataSize(ObjectID object,
                                                       const PropertyAddress& address,
                                                       std::uint32_t qualifierDataSize,
                                                       const void* qualifierData,
                                                       std::uint32_t* outDataSize) {
  const AudioObjectPropertyAddress nativeAddress = native(address);
  return AudioObjectGetPropertyDataSize(object, &nativeAddress, qualifierDataSize, qualifierData,
                                        outDataSize);
}

OSStatus CoreAudioHardwareService::getPropertyData(ObjectID object, const PropertyAddress& address,
                                                   std::uint32_t qualifierDataSize,
                                                   const void* qualifierData,
                                                   std::uint32_t* ioDataSize, void* outData) {
  const AudioObjectPropertyAddress nativeAddress = native(address);
  return AudioObjectGetPropertyData(object, &nativeAddress, qualifierDataSize, qualifierData,
                                    ioDataSize, outData);
}

OSStatus CoreAudioHardwareService::setPropertyData(ObjectID object, const PropertyAddress& address,
                                                   std::uint32_t qualifierDataSize,
                                                   const void* qualifierData,
                                                   std::uint32_t dataSize, void* data) {
  const AudioObjectPropertyAddress nativeAddress = native(address);
  return AudioObjectSetPropertyData(object, &nativeAddress, qualifierDataSize, qualifierData,
                                    dataSize, data);
}

bool CoreAudioHardwareService::hasProperty(ObjectID object, const PropertyAddress& address) {
  const AudioObjectPropertyAddress nativeAddress = native(address);
  return AudioObjectHasProperty(object, &nativeAddress) != 0;
}

OSStatus CoreAudioHardwareService::addPropertyListenerBlock(ObjectID object,
                                                            const PropertyAddress& address,
                                                            std::shared_ptr<DispatchQueue> queue,
                                                            PlatformListenerBlockRef block) {
  return RegisterWithNewBlock<AudioObjectPropertyAddress, AudioObjectPropertyListenerBlock>(
      &AudioObjectAddPropertyListenerBlock, object, address, queue, block,
      harkwell::kAudioHardwareIllegalOperationError);
}

OSStatus CoreAudioHardwareService::removePropertyListenerBlock(ObjectID object,
                                                               const PropertyAddress& address,
                                                               std::shared_ptr<DispatchQueue> queue,
                                                               PlatformListenerBlockRef block) {
  return RegisterWithNewBlock<AudioObjectPropertyAddress, AudioObjectPropertyListenerBlock>(
      &AudioObjectRemovePropertyListenerBlock, object, address, queue, block,
      harkwell::kAudioHardwareIllegalOperationError);
}

std::shared_ptr<AudioHardwareService> MakeDefaultAudioHardwareService() {
  return CoreAudioHardwareService::create();
}

}  // namespace harkwell
