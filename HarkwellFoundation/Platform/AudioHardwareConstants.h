// The audio service's object IDs, property selectors, scopes, transport codes and statuses. Every
// service (simulated, PulseAudio, CoreAudio) speaks these values.
#pragma once

#include <cstdint>

#include "HarkwellFoundation/Platform/FourCharCode.h"
#include "HarkwellFoundation/Platform/PropertyAddress.h"

namespace harkwell {

constexpr ObjectID kAudioObjectSystemObject = 1;
constexpr std::uint32_t kAudioObjectPropertyElementMaster = 0;

// Scopes.
constexpr std::uint32_t kAudioObjectPropertyScopeGlobal = FourCharCode("glob");
constexpr std::uint32_t kAudioObjectPropertyScopeInput = FourCharCode("inpt");
constexpr std::uint32_t kAudioObjectPropertyScopeOutput = FourCharCode("outp");

// Selectors.
constexpr std::uint32_t kAudioHardwarePropertyDevices = FourCharCode("dev#");
constexpr std::uint32_t kAudioObjectPropertyName = FourCharCode("lnam");
constexpr std::uint32_t kAudioDevicePropertyDeviceUID = FourCharCode("uid ");
constexpr std::uint32_t kAudioDevicePropertyModelUID = FourCharCode("muid");
constexpr std::uint32_t kAudioDevicePropertyDataSource = FourCharCode("ssrc");
constexpr std::uint32_t kAudioDevicePropertyDataSourceNameForIDCFString = FourCharCode("lscn");
constexpr std::uint32_t kAudioDevicePropertyStreams = FourCharCode("stm#");
constexpr std::uint32_t kAudioDevicePropertyDeviceIsRunningSomewhere = FourCharCode("gone");
constexpr std::uint32_t kAudioDevicePropertyTransportType = FourCharCode("tran");
constexpr std::uint32_t kAudioDevicePropertyHogMode = FourCharCode("oink");
// The library's own: the device's consumers, encoded by Platform/DeviceConsumerCoding.h. No
// platform defines it; the Apple service builds it from CoreAudio's process objects.
constexpr std::uint32_t kAudioDevicePropertyConsumers = FourCharCode("hcn#");

// Transport codes.
constexpr std::uint32_t kAudioDeviceTransportTypeUnknown = 0;
constexpr std::uint32_t kAudioDeviceTransportTypeBuiltIn = FourCharCode("bltn");
constexpr std::uint32_t kAudioDeviceTransportTypeAggregate = FourCharCode("grup");
constexpr std::uint32_t kAudioDeviceTransportTypeVirtual = FourCharCode("virt");
constexpr std::uint32_t kAudioDeviceTransportTypePCI = FourCharCode("pci ");
constexpr std::uint32_t kAudioDeviceTransportTypeUSB = FourCharCode("usb ");
constexpr std::uint32_t kAudioDeviceTransportTypeFireWire = FourCharCode("1394");
constexpr std::uint32_t kAudioDeviceTransportTypeBluetooth = FourCharCode("blue");
constexpr std::uint32_t kAudioDeviceTransportTypeBluetoothLE = FourCharCode("blea");
constexpr std::uint32_t kAudioDeviceTransportTypeHDMI = FourCharCode("hdmi");
constexpr std::uint32_t kAudioDeviceTransportTypeDisplayPort = FourCharCode("dprt");
constexpr std::uint32_t kAudioDeviceTransportTypeAirPlay = FourCharCode("airp");
constexpr std::uint32_t kAudioDeviceTransportTypeAVB = FourCharCode("eavb");
constexpr std::uint32_t kAudioDeviceTransportTypeThunderbolt = FourCharCode("thun");
constexpr std::uint32_t kAudioDeviceTransportTypeAutoAggregate = FourCharCode("fgrp");

// Statuses.
constexpr OSStatus kAudioHardwareBadObjectError = static_cast<OSStatus>(FourCharCode("!obj"));
constexpr OSStatus kAudioHardwareUnknownPropertyError = static_cast<OSStatus>(FourCharCode("who?"));
constexpr OSStatus kAudioHardwareBadPropertySizeError = static_cast<OSStatus>(FourCharCode("!siz"));
constexpr OSStatus kAudioHardwareIllegalOperationError =
    static_cast<OSStatus>(FourCharCode("nope"));
constexpr OSStatus kAudioHardwareUnspecifiedError = static_cast<OSStatus>(FourCharCode("what"));
constexpr OSStatus kAudioHardwareNotRunningError = static_cast<OSStatus>(FourCharCode("stop"));
// Another process holds the device exclusively and keeps it.
constexpr OSStatus kAudioDevicePermissionsError = static_cast<OSStatus>(FourCharCode("!hog"));

// The value-translation record read through kAudioDevicePropertyDataSourceNameForIDCFString: the
// input points at a 4-byte source ID, the output at a PlatformStringRef the service fills in.
struct AudioValueTranslation {
  void* mInputData;
  std::uint32_t mInputDataSize;
  void* mOutputData;
  std::uint32_t mOutputDataSize;
};

// The data size passed with an AudioValueTranslation: the record's packed size (two pointers and
// two 32-bit sizes, without trailing padding).
constexpr std::uint32_t kAudioValueTranslationDataSize = 28;

}  // namespace harkwell
