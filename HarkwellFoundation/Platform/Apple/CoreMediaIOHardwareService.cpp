#include "HarkwellFoundation/Platform/Apple/CoreMediaIOHardwareService.h"

#include <CoreMediaIO/CMIOHardware.h>

#include "HarkwellFoundation/Platform/Apple/AppleListenerBlock.h"
#include "HarkwellFoundation/Platform/Apple/AppleSdkValues.h"
#include "HarkwellFoundation/Platform/VideoHardwareConstants.h"

namespace harkwell {
namespace {

// The library speaks the project's constants; on Apple they must be CoreMediaIO's own values,
// since they reach CoreMediaIO unchanged and its statuses come back unchanged. (Transport types
// are values a device reports, named by IOKit rather than CoreMediaIO; the library compares them
// with the project's codes.)
static_assert(SameSdkValue(harkwell::kCMIOObjectSystemObject, ::kCMIOObjectSystemObject));
static_assert(SameSdkValue(harkwell::kCMIOObjectPropertyElementMaster,
                           ::kCMIOObjectPropertyElementMain));
static_assert(SameSdkValue(harkwell::kCMIOObjectPropertyScopeGlobal,
                           ::kCMIOObjectPropertyScopeGlobal));
static_assert(SameSdkValue(harkwell::kCMIODevicePropertyScopeInput,
                           ::kCMIODevicePropertyScopeInput));
static_assert(SameSdkValue(harkwell::kCMIODevicePropertyScopeOutput,
                           ::kCMIODevicePropertyScopeOutput));
static_assert(SameSdkValue(harkwell::kCMIOHardwarePropertyAllowScreenCaptureDevices,
                           ::kCMIOHardwarePropertyAllowScreenCaptureDevices));
static_assert(SameSdkValue(harkwell::kCMIOHardwarePropertyDevices, ::kCMIOHardwarePropertyDevices));
static_assert(SameSdkValue(harkwell::kCMIOObjectPropertyName, ::kCMIOObjectPropertyName));
static_assert(SameSdkValue(harkwell::kCMIODevicePropertyDeviceUID, ::kCMIODevicePropertyDeviceUID));
static_assert(SameSdkValue(harkwell::kCMIODevicePropertyModelUID, ::kCMIODevicePropertyModelUID));
static_assert(SameSdkValue(harkwell::kCMIODevicePropertyStreams, ::kCMIODevicePropertyStreams));
static_assert(SameSdkValue(harkwell::kCMIODevicePropertyDeviceIsRunningSomewhere,
                           ::kCMIODevicePropertyDeviceIsRunningSomewhere));
static_assert(SameSdkValue(harkwell::kCMIODevicePropertyTransportType,
                           ::kCMIODevicePropertyTransportType));
static_assert(SameSdkValue(harkwell::kCMIODevicePropertyHogMode, ::kCMIODevicePropertyHogMode));

static_assert(SameSdkValue(harkwell::kCMIOHardwareBadObjectError, ::kCMIOHardwareBadObjectError));
static_assert(SameSdkValue(harkwell::kCMIOHardwareUnknownPropertyError,
                           ::kCMIOHardwareUnknownPropertyError));
static_assert(SameSdkValue(harkwell::kCMIOHardwareBadPropertySizeError,
                           ::kCMIOHardwareBadPropertySizeError));
static_assert(SameSdkValue(harkwell::kCMIOHardwareIllegalOperationError,
                           ::kCMIOHardwareIllegalOperationError));

CMIOObjectPropertyAddress native(const PropertyAddress& address) {
  return ToNativeAddress<CMIOObjectPropertyAddress>(address);
}

// CoreMediaIO says nothing about who streams from a camera: the consumers property is unknown on
// every camera, whatever CoreMediaIO would make of the selector.
bool IsConsumersProperty(ObjectID object, const PropertyAddress& address) {
  return address.mSelector == harkwell::kCMIODevicePropertyConsumers &&
         object != harkwell::kCMIOObjectSystemObject;
}

}  // namespace

OSStatus CoreMediaIOHardwareService::getPropertyDataSize(ObjectID object,
                                                         const PropertyAddress& address,
                                                         std::uint32_t qualifierDataSize,
                                                         const void* qualifierData,
                                                         std::uint32_t* outDataSize) {
  if (IsConsumersProperty(object, address)) return harkwell::kCMIOHardwareUnknownPropertyError;
  const CMIOObjectPropertyAddress nativeAddress = native(address);
  return CMIOObjectGetPropertyDataSize(object, &nativeAddress, qualifierDataSize, qualifierData,
                                       outDataSize);
}

OSStatus CoreMediaIOHardwareService::getPropertyData(ObjectID object,
                                                     const PropertyAddress& address,
                                                     std::uint32_t qualifierDataSize,
                                                     const void* qualifierData,
                                                     std::uint32_t* ioDataSize, void* outData) {
  if (IsConsumersProperty(object, address)) return harkwell::kCMIOHardwareUnknownPropertyError;
  const CMIOObjectPropertyAddress nativeAddress = native(address);
  const std::uint32_t bufferSize = ioDataSize ? *ioDataSize : 0;
  std::uint32_t used = 0;
  const OSStatus status = CMIOObjectGetPropertyData(object, &nativeAddress, qualifierDataSize,
                                                    qualifierData, bufferSize, &used, outData);
  if (status == kNoErr && ioDataSize) *ioDataSize = used;
  return status;
}

OSStatus CoreMediaIOHardwareService::setPropertyData(ObjectID object,
                                                     const PropertyAddress& address,
                                                     std::uint32_t qualifierDataSize,
                                                     const void* qualifierData,
                                                     std::uint32_t dataSize, void* data) {
  // CoreMediaIO may write into `data` although it takes it as const: a hog-mode write leaves the
  // resulting owner there.
  const CMIOObjectPropertyAddress nativeAddress = native(address);
  return CMIOObjectSetPropertyData(object, &nativeAddress, qualifierDataSize, qualifierData,
                                   dataSize, data);
}

OSStatus CoreMediaIOHardwareService::addPropertyListenerBlock(ObjectID object,
                                                              const PropertyAddress& address,
                                                              std::shared_ptr<DispatchQueue> queue,
                                                              PlatformListenerBlockRef block) {
  if (IsConsumersProperty(object, address)) return harkwell::kCMIOHardwareUnknownPropertyError;
  return RegisterWithNewBlock<CMIOObjectPropertyAddress, CMIOObjectPropertyListenerBlock>(
      &CMIOObjectAddPropertyListenerBlock, object, address, queue, block,
      harkwell::kCMIOHardwareIllegalOperationError);
}

OSStatus CoreMediaIOHardwareService::removePropertyListenerBlock(
    ObjectID object, const PropertyAddress& address, std::shared_ptr<DispatchQueue> queue,
    PlatformListenerBlockRef block) {
  return RegisterWithNewBlock<CMIOObjectPropertyAddress, CMIOObjectPropertyListenerBlock>(
      &CMIOObjectRemovePropertyListenerBlock, object, address, queue, block,
      harkwell::kCMIOHardwareIllegalOperationError);
}

std::shared_ptr<VideoHardwareService> MakeDefaultVideoHardwareService() {
  return CoreMediaIOHardwareService::create();
}

}  // namespace harkwell
