// The transport codes that the audio and the video services report, beside the transport each
// names: one table per media type, read in both directions (a service's code to the device's
// transport, and a transport to the code a simulated device reports, for the program's scenario
// files). A code missing from a table reads as Unknown; Unknown is written as 0.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>

#include "HarkwellFoundation/Model/MediaEnumerations.h"
#include "HarkwellFoundation/Platform/AudioHardwareConstants.h"
#include "HarkwellFoundation/Platform/VideoHardwareConstants.h"

namespace harkwell {

struct TransportCode {
  std::uint32_t code = 0;
  MediaDeviceTransportType transport = MediaDeviceTransportType::Unknown;
};

using TransportCodeTable = std::span<const TransportCode>;

// Audio devices never report Network, Wireless or Other; unknown codes (the auto-aggregate code
// among them) are Unknown.
inline constexpr std::array kAudioTransportCodes{
    TransportCode{kAudioDeviceTransportTypeAggregate, MediaDeviceTransportType::Aggregate},
    TransportCode{kAudioDeviceTransportTypeAirPlay, MediaDeviceTransportType::AirPlay},
    TransportCode{kAudioDeviceTransportTypeAVB, MediaDeviceTransportType::AVB},
    TransportCode{kAudioDeviceTransportTypeBluetooth, MediaDeviceTransportType::Bluetooth},
    TransportCode{kAudioDeviceTransportTypeBluetoothLE, MediaDeviceTransportType::BluetoothLE},
    TransportCode{kAudioDeviceTransportTypeBuiltIn, MediaDeviceTransportType::BuiltIn},
    TransportCode{kAudioDeviceTransportTypeDisplayPort, MediaDeviceTransportType::DisplayPort},
    TransportCode{kAudioDeviceTransportTypeFireWire, MediaDeviceTransportType::FireWire},
    TransportCode{kAudioDeviceTransportTypeHDMI, MediaDeviceTransportType::HDMI},
    TransportCode{kAudioDeviceTransportTypePCI, MediaDeviceTransportType::PCI},
    TransportCode{kAudioDeviceTransportTypeThunderbolt, MediaDeviceTransportType::Thunderbolt},
    TransportCode{kAudioDeviceTransportTypeUSB, MediaDeviceTransportType::USB},
    TransportCode{kAudioDeviceTransportTypeVirtual, MediaDeviceTransportType::Virtual},
};

// Narrower than the audio table in some ways (no Aggregate, AirPlay or BluetoothLE) and wider in
// others (Network, Wireless, Other).
inline constexpr std::array kVideoTransportCodes{
    TransportCode{kVideoTransportTypeFireWire, MediaDeviceTransportType::FireWire},
    TransportCode{kVideoTransportTypeThunderbolt, MediaDeviceTransportType::Thunderbolt},
    TransportCode{kVideoTransportTypeBuiltIn, MediaDeviceTransportType::BuiltIn},
    TransportCode{kVideoTransportTypeVirtual, MediaDeviceTransportType::Virtual},
    TransportCode{kVideoTransportTypeUSB, MediaDeviceTransportType::USB},
    TransportCode{kVideoTransportTypeHDMI, MediaDeviceTransportType::HDMI},
    TransportCode{kVideoTransportTypeWireless, MediaDeviceTransportType::Wireless},
    TransportCode{kVideoTransportTypeDisplayPort, MediaDeviceTransportType::DisplayPort},
    TransportCode{kVideoTransportTypeOther, MediaDeviceTransportType::Other},
    TransportCode{kVideoTransportTypeBluetooth, MediaDeviceTransportType::Bluetooth},
    TransportCode{kVideoTransportTypeNetwork, MediaDeviceTransportType::Network},
    TransportCode{kVideoTransportTypeAVB, MediaDeviceTransportType::AVB},
    TransportCode{kVideoTransportTypePCI, MediaDeviceTransportType::PCI},
};

constexpr TransportCodeTable TransportCodesFor(MediaType mediaType) {
  if (mediaType == MediaType::Audio) return kAudioTransportCodes;
  return kVideoTransportCodes;
}

// The transport `code` names in `table`; Unknown for a code the table lacks.
constexpr MediaDeviceTransportType TransportForCode(TransportCodeTable table, std::uint32_t code) {
  for (const TransportCode& entry : table) {
    if (entry.code == code) return entry.transport;
  }
  return MediaDeviceTransportType::Unknown;
}

// The code of `transport` in `table`: 0 for Unknown, none for a transport the table lacks.
constexpr std::optional<std::uint32_t> CodeForTransport(TransportCodeTable table,
                                                        MediaDeviceTransportType transport) {
  if (transport == MediaDeviceTransportType::Unknown) return 0;
  for (const TransportCode& entry : table) {
    if (entry.transport == transport) return entry.code;
  }
  return std::nullopt;
}

}  // namespace harkwell
