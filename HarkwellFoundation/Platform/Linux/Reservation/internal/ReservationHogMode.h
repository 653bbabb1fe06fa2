// The audio hog-mode property ("oink") of one device whose exclusive access is its sound card's
// reservation, for the Linux audio services (PulseAudio, PipeWire): a service finds the device's
// card number in its server's properties, makes one of these with it, and hands it the seam's call.
// A device without a card (a virtual or network device) has no reservation: the service makes the
// object with the status that answers instead (kAudioHardwareUnknownPropertyError, as cameras
// answer, or kAudioHardwareBadObjectError for an absent device), and every call returns it.
//
//   size   4 (an Int32)
//   read   the pid of the process owning the card's reservation: -1 when nobody owns it or there
//          is no session bus, getpid() when this process does; kAudioHardwareUnspecifiedError when
//          the bus failed or did not answer in time
//   write  a toggle, whatever the value written: gives the card back when this process holds it,
//          else takes it, asking its owner to release it. The owner afterwards is written back
//          into the value: getpid() once taken, -1 once given back; a failed write leaves the
//          value as it was. kAudioDevicePermissionsError when the owner keeps the card,
//          kAudioHardwareNotRunningError without a session bus
//
// Used on the caller's thread with no lock of the service held: a read or a write may wait on the
// bus, at most the reservation's call timeout per bus call. Size and existence never wait.
#pragma once

#include <cstdint>

#include "HarkwellFoundation/Platform/Linux/Reservation/DeviceReservation.h"

namespace harkwell {

class ReservationHogMode {
 public:
  // `cardStatus` kNoErr: the device's card is `card`. Otherwise the status every call answers.
  ReservationHogMode(DeviceReservation& reservation, OSStatus cardStatus, std::uint32_t card)
      : reservation_(reservation), cardStatus_(cardStatus), card_(card) {}

  bool exists() const { return cardStatus_ == kNoErr; }
  OSStatus dataSize(std::uint32_t* outDataSize) const;
  OSStatus read(std::uint32_t* ioDataSize, void* outData) const;
  OSStatus write(std::uint32_t dataSize, void* data) const;

 private:
  DeviceReservation& reservation_;
  const OSStatus cardStatus_;
  const std::uint32_t card_;
};

}  // namespace harkwell
