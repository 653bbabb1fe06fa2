// The video service's object IDs, property selectors, scopes, transport codes and statuses.
#pragma once

#include <cstdint>

#include "HarkwellFoundation/Platform/FourCharCode.h"
#include "HarkwellFoundation/Platform/PropertyAddress.h"

namespace harkwell {

constexpr ObjectID kCMIOObjectSystemObject = 1;
constexpr std::uint32_t kCMIOObjectPropertyElementMaster = 0;

// Scopes.
constexpr std::uint32_t kCMIOObjectPropertyScopeGlobal = FourCharCode("glob");
constexpr std::uint32_t kCMIODevicePropertyScopeInput = FourCharCode("inpt");
constexpr std::uint32_t kCMIODevicePropertyScopeOutput = FourCharCode("outp");

// Selectors.
constexpr std::uint32_t kCMIOHardwarePropertyAllowScreenCaptureDevices = FourCharCode("yes ");
constexpr std::uint32_t kCMIOHardwarePropertyDevices = FourCharCode("dev#");
constexpr std::uint32_t kCMIOObjectPropertyName = FourCharCode("lnam");
constexpr std::uint32_t kCMIODevicePropertyDeviceUID = FourCharCode("uid ");
constexpr std::uint32_t kCMIODevicePropertyModelUID = FourCharCode("muid");
constexpr std::uint32_t kCMIODevicePropertyStreams = FourCharCode("stm#");
constexpr std::uint32_t kCMIODevicePropertyDeviceIsRunningSomewhere = FourCharCode("gone");
constexpr std::uint32_t kCMIODevicePropertyTransportType = FourCharCode("tran");
constexpr std::uint32_t kCMIODevicePropertyHogMode = FourCharCode("oink");
// The library's own: the camera's consumers, encoded by Platform/DeviceConsumerCoding.h.
constexpr std::uint32_t kCMIODevicePropertyConsumers = FourCharCode("hcn#");

// Transport codes a video device reports.
constexpr std::uint32_t kVideoTransportTypeFireWire = FourCharCode("1394");
constexpr std::uint32_t kVideoTransportTypeThunderbolt = FourCharCode("thun");
constexpr std::uint32_t kVideoTransportTypeBuiltIn = FourCharCode("bltn");
constexpr std::uint32_t kVideoTransportTypeVirtual = FourCharCode("virt");
constexpr std::uint32_t kVideoTransportTypeUSB = FourCharCode("usb ");
constexpr std::uint32_t kVideoTransportTypeHDMI = FourCharCode("hdmi");
constexpr std::uint32_t kVideoTransportTypeWireless = FourCharCode("wrls");
constexpr std::uint32_t kVideoTransportTypeDisplayPort = FourCharCode("dprt");
constexpr std::uint32_t kVideoTransportTypeOther = FourCharCode("othr");
constexpr std::uint32_t kVideoTransportTypeBluetooth = FourCharCode("blue");
constexpr std::uint32_t kVideoTransportTypeNetwork = FourCharCode("ntwk");
constexpr std::uint32_t kVideoTransportTypeAVB = FourCharCode("eavb");
constexpr std::uint32_t kVideoTransportTypePCI = FourCharCode("pci ");

// Statuses.
constexpr OSStatus kCMIOHardwareBadObjectError = static_cast<OSStatus>(FourCharCode("!obj"));
constexpr OSStatus kCMIOHardwareUnknownPropertyError = static_cast<OSStatus>(FourCharCode("who?"));
constexpr OSStatus kCMIOHardwareBadPropertySizeError = static_cast<OSStatus>(FourCharCode("!siz"));
constexpr OSStatus kCMIOHardwareIllegalOperationError = static_cast<OSStatus>(FourCharCode("nope"));

}  // namespace harkwell
