// The audio hog-mode property ("oink") of a device whose exclusive access is its sound card's
// reservation, for the Linux audio services (PulseAudio, PipeWire): they find the device's card
// number in the server's properties and hand it here. A device without a card (a virtual or
// network device) has no reservation; the services answer it with
// kAudioHardwareUnknownPropertyError themselves, as they answer cameras.
//
//   read   the pid of the process owning the card's reservation (Int32, 4 bytes): -1 when nobody
//          owns it or there is no session bus, getpid() when this process does;
//          kAudioHardwareUnspecifiedError when the bus failed or did not answer in time
//   write  a toggle, whatever the value written: gives the card back when this process holds it,
//          else takes it, asking its owner to release it. The owner afterwards is written back
//          into the value: getpid() once taken, -1 once given back; a failed write leaves the
//          value as it was. kAudioDevicePermissionsError when the owner keeps the card,
//          kAudioHardwareNotRunningError without a session bus
//
// Called on the caller's thread with no lock of the service held: each call may wait on the bus,
// at most the reservation's call timeout per bus call.
#pragma once

#include <cstdint>
#include <string>

#include "HarkwellFoundation/Platform/Linux/Reservation/DeviceReservation.h"

namespace harkwell {

// The property data size, 4, for a device that has a card.
constexpr std::uint32_t kReservationHogModeDataSize = sizeof(std::int32_t);

OSStatus ReadReservationHogMode(DeviceReservation& reservation, std::uint32_t card,
                                std::uint32_t* ioDataSize, void* outData);

// `deviceName` is what other programs read as our ApplicationDeviceName while we hold the card.
OSStatus ToggleReservationHogMode(DeviceReservation& reservation, std::uint32_t card,
                                  const std::string& deviceName, std::uint32_t dataSize,
                                  void* data);

}  // namespace harkwell
