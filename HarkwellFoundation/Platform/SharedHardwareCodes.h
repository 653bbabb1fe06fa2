// The selectors, scopes, objects and statuses that audio and video services spell the same way.
// Code written once for both media types (the simulated services, the shared property reader and
// listener helpers, exclusive access) passes one media type's constant to the other's service;
// these checks keep that honest.
#pragma once

#include "HarkwellFoundation/Platform/AudioHardwareConstants.h"
#include "HarkwellFoundation/Platform/VideoHardwareConstants.h"

namespace harkwell {

static_assert(kAudioObjectSystemObject == kCMIOObjectSystemObject);
static_assert(kAudioObjectPropertyElementMaster == kCMIOObjectPropertyElementMaster);

static_assert(kAudioObjectPropertyScopeGlobal == kCMIOObjectPropertyScopeGlobal);
static_assert(kAudioObjectPropertyScopeInput == kCMIODevicePropertyScopeInput);
static_assert(kAudioObjectPropertyScopeOutput == kCMIODevicePropertyScopeOutput);

static_assert(kAudioHardwarePropertyDevices == kCMIOHardwarePropertyDevices);
static_assert(kAudioObjectPropertyName == kCMIOObjectPropertyName);
static_assert(kAudioDevicePropertyDeviceUID == kCMIODevicePropertyDeviceUID);
static_assert(kAudioDevicePropertyModelUID == kCMIODevicePropertyModelUID);
static_assert(kAudioDevicePropertyStreams == kCMIODevicePropertyStreams);
static_assert(kAudioDevicePropertyDeviceIsRunningSomewhere ==
              kCMIODevicePropertyDeviceIsRunningSomewhere);
static_assert(kAudioDevicePropertyTransportType == kCMIODevicePropertyTransportType);
static_assert(kAudioDevicePropertyHogMode == kCMIODevicePropertyHogMode);
static_assert(kAudioDevicePropertyConsumers == kCMIODevicePropertyConsumers);

static_assert(kAudioHardwareBadObjectError == kCMIOHardwareBadObjectError);
static_assert(kAudioHardwareUnknownPropertyError == kCMIOHardwareUnknownPropertyError);
static_assert(kAudioHardwareBadPropertySizeError == kCMIOHardwareBadPropertySizeError);
static_assert(kAudioHardwareIllegalOperationError == kCMIOHardwareIllegalOperationError);

}  // namespace harkwell
