// The CoreMediaIO declarations our macOS sources use: the object property calls and the
// constants whose values the project's own constants must equal.
#pragma once

#include <CoreFoundation/CoreFoundation.h>
#include <dispatch/dispatch.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef UInt32 CMIOObjectID;
typedef UInt32 CMIOObjectPropertySelector;
typedef UInt32 CMIOObjectPropertyScope;
typedef UInt32 CMIOObjectPropertyElement;

typedef struct {
  CMIOObjectPropertySelector mSelector;
  CMIOObjectPropertyScope mScope;
  CMIOObjectPropertyElement mElement;
} CMIOObjectPropertyAddress;

typedef void (^CMIOObjectPropertyListenerBlock)(UInt32 inNumberAddresses,
                                                const CMIOObjectPropertyAddress addresses[]);

OSStatus CMIOObjectGetPropertyDataSize(CMIOObjectID objectID,
                                       const CMIOObjectPropertyAddress* address,
                                       UInt32 qualifierDataSize, const void* qualifierData,
                                       UInt32* dataSize);
OSStatus CMIOObjectGetPropertyData(CMIOObjectID objectID, const CMIOObjectPropertyAddress* address,
                                   UInt32 qualifierDataSize, const void* qualifierData,
                                   UInt32 dataSize, UInt32* dataUsed, void* data);
OSStatus CMIOObjectSetPropertyData(CMIOObjectID objectID, const CMIOObjectPropertyAddress* address,
                                   UInt32 qualifierDataSize, const void* qualifierData,
                                   UInt32 dataSize, const void* data);
OSStatus CMIOObjectAddPropertyListenerBlock(CMIOObjectID objectID,
                                            const CMIOObjectPropertyAddress* address,
                                            dispatch_queue_t dispatchQueue,
                                            CMIOObjectPropertyListenerBlock listener);
OSStatus CMIOObjectRemovePropertyListenerBlock(CMIOObjectID objectID,
                                               const CMIOObjectPropertyAddress* address,
                                               dispatch_queue_t dispatchQueue,
                                               CMIOObjectPropertyListenerBlock listener);

enum {
  kCMIOObjectSystemObject = 1,
  kCMIOObjectPropertyElementMain = 0,
};

// Scopes and selectors.
enum {
  kCMIOObjectPropertyScopeGlobal = 0x676C6F62,                      // 'glob'
  kCMIODevicePropertyScopeInput = 0x696E7074,                       // 'inpt'
  kCMIODevicePropertyScopeOutput = 0x6F757470,                      // 'outp'
  kCMIOHardwarePropertyAllowScreenCaptureDevices = 0x79657320,      // 'yes '
  kCMIOHardwarePropertyDevices = 0x64657623,                        // 'dev#'
  kCMIOObjectPropertyName = 0x6C6E616D,                             // 'lnam'
  kCMIODevicePropertyDeviceUID = 0x75696420,                        // 'uid '
  kCMIODevicePropertyModelUID = 0x6D756964,                         // 'muid'
  kCMIODevicePropertyStreams = 0x73746D23,                          // 'stm#'
  kCMIODevicePropertyDeviceIsRunningSomewhere = 0x676F6E65,         // 'gone'
  kCMIODevicePropertyTransportType = 0x7472616E,                    // 'tran'
  kCMIODevicePropertyHogMode = 0x6F696E6B,                          // 'oink'
};

// Statuses.
enum {
  kCMIOHardwareUnspecifiedError = 0x77686174,                       // 'what'
  kCMIOHardwareUnknownPropertyError = 0x77686F3F,                   // 'who?'
  kCMIOHardwareBadPropertySizeError = 0x2173697A,                   // '!siz'
  kCMIOHardwareIllegalOperationError = 0x6E6F7065,                  // 'nope'
  kCMIOHardwareBadObjectError = 0x216F626A,                         // '!obj'
};

#ifdef __cplusplus
}
#endif
