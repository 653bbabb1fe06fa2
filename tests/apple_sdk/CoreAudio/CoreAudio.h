// The CoreAudio declarations our macOS sources use: the audio object property calls and the
// constants whose values the project's own constants must equal.
#pragma once

#include <CoreFoundation/CoreFoundation.h>
#include <dispatch/dispatch.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef UInt32 AudioObjectID;
typedef UInt32 AudioObjectPropertySelector;
typedef UInt32 AudioObjectPropertyScope;
typedef UInt32 AudioObjectPropertyElement;

typedef struct {
  AudioObjectPropertySelector mSelector;
  AudioObjectPropertyScope mScope;
  AudioObjectPropertyElement mElement;
} AudioObjectPropertyAddress;

typedef struct {
  void* mInputData;
  UInt32 mInputDataSize;
  void* mOutputData;
  UInt32 mOutputDataSize;
} AudioValueTranslation;

typedef void (^AudioObjectPropertyListenerBlock)(UInt32 inNumberAddresses,
                                                 const AudioObjectPropertyAddress* inAddresses);

OSStatus AudioObjectGetPropertyDataSize(AudioObjectID inObjectID,
                                        const AudioObjectPropertyAddress* inAddress,
                                        UInt32 inQualifierDataSize, const void* inQualifierData,
                                        UInt32* outDataSize);
OSStatus AudioObjectGetPropertyData(AudioObjectID inObjectID,
                                    const AudioObjectPropertyAddress* inAddress,
                                    UInt32 inQualifierDataSize, const void* inQualifierData,
                                    UInt32* ioDataSize, void* outData);
OSStatus AudioObjectSetPropertyData(AudioObjectID inObjectID,
                                    const AudioObjectPropertyAddress* inAddress,
                                    UInt32 inQualifierDataSize, const void* inQualifierData,
                                    UInt32 inDataSize, const void* inData);
Boolean AudioObjectHasProperty(AudioObjectID inObjectID,
                               const AudioObjectPropertyAddress* inAddress);
OSStatus AudioObjectAddPropertyListenerBlock(AudioObjectID inObjectID,
                                             const AudioObjectPropertyAddress* inAddress,
                                             dispatch_queue_t inDispatchQueue,
                                             AudioObjectPropertyListenerBlock inListener);
OSStatus AudioObjectRemovePropertyListenerBlock(AudioObjectID inObjectID,
                                                const AudioObjectPropertyAddress* inAddress,
                                                dispatch_queue_t inDispatchQueue,
                                                AudioObjectPropertyListenerBlock inListener);

enum {
  kAudioObjectSystemObject = 1,
  kAudioObjectPropertyElementMain = 0,
};

// Scopes and selectors.
enum {
  kAudioObjectPropertyScopeGlobal = 0x676C6F62,                   // 'glob'
  kAudioObjectPropertyScopeInput = 0x696E7074,                    // 'inpt'
  kAudioObjectPropertyScopeOutput = 0x6F757470,                   // 'outp'
  kAudioHardwarePropertyDevices = 0x64657623,                     // 'dev#'
  kAudioObjectPropertyName = 0x6C6E616D,                          // 'lnam'
  kAudioDevicePropertyDeviceUID = 0x75696420,                     // 'uid '
  kAudioDevicePropertyModelUID = 0x6D756964,                      // 'muid'
  kAudioDevicePropertyDataSource = 0x73737263,                    // 'ssrc'
  kAudioDevicePropertyDataSourceNameForIDCFString = 0x6C73636E,   // 'lscn'
  kAudioDevicePropertyStreams = 0x73746D23,                       // 'stm#'
  kAudioDevicePropertyDeviceIsRunningSomewhere = 0x676F6E65,      // 'gone'
  kAudioDevicePropertyTransportType = 0x7472616E,                 // 'tran'
  kAudioDevicePropertyHogMode = 0x6F696E6B,                       // 'oink'
  kAudioObjectPropertyScopeWildcard = 0x2A2A2A2A,                 // '****'
};

// Process objects: one per process that uses the audio system (macOS 14 and later).
enum {
  kAudioHardwarePropertyProcessObjectList = 0x70727323,           // 'prs#'
  kAudioProcessPropertyPID = 0x70706964,                          // 'ppid'
  kAudioProcessPropertyBundleID = 0x70626964,                     // 'pbid'
  kAudioProcessPropertyDevices = 0x70647623,                      // 'pdv#'
  kAudioProcessPropertyIsRunning = 0x7069723F,                    // 'pir?'
  kAudioProcessPropertyIsRunningInput = 0x70697269,               // 'piri'
  kAudioProcessPropertyIsRunningOutput = 0x7069726F,              // 'piro'
};

// Transport types.
enum {
  kAudioDeviceTransportTypeUnknown = 0,
  kAudioDeviceTransportTypeBuiltIn = 0x626C746E,                  // 'bltn'
  kAudioDeviceTransportTypeAggregate = 0x67727570,                // 'grup'
  kAudioDeviceTransportTypeAutoAggregate = 0x66677270,            // 'fgrp'
  kAudioDeviceTransportTypeVirtual = 0x76697274,                  // 'virt'
  kAudioDeviceTransportTypePCI = 0x70636920,                      // 'pci '
  kAudioDeviceTransportTypeUSB = 0x75736220,                      // 'usb '
  kAudioDeviceTransportTypeFireWire = 0x31333934,                 // '1394'
  kAudioDeviceTransportTypeBluetooth = 0x626C7565,                // 'blue'
  kAudioDeviceTransportTypeBluetoothLE = 0x626C6561,              // 'blea'
  kAudioDeviceTransportTypeHDMI = 0x68646D69,                     // 'hdmi'
  kAudioDeviceTransportTypeDisplayPort = 0x64707274,              // 'dprt'
  kAudioDeviceTransportTypeAirPlay = 0x61697270,                  // 'airp'
  kAudioDeviceTransportTypeAVB = 0x65617662,                      // 'eavb'
  kAudioDeviceTransportTypeThunderbolt = 0x7468756E,              // 'thun'
};

// Statuses.
enum {
  kAudioHardwareUnspecifiedError = 0x77686174,                    // 'what'
  kAudioHardwareUnknownPropertyError = 0x77686F3F,                // 'who?'
  kAudioHardwareBadPropertySizeError = 0x2173697A,                // '!siz'
  kAudioHardwareIllegalOperationError = 0x6E6F7065,               // 'nope'
  kAudioHardwareBadObjectError = 0x216F626A,                      // '!obj'
};

#ifdef __cplusplus
}
#endif
