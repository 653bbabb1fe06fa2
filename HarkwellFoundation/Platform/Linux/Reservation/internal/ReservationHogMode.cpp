#include "HarkwellFoundation/Platform/Linux/Reservation/internal/ReservationHogMode.h"

#include <unistd.h>

#include <cstring>

#include "HarkwellFoundation/Platform/AudioHardwareConstants.h"

namespace harkwell {

OSStatus ReadReservationHogMode(DeviceReservation& reservation, std::uint32_t card,
                                std::uint32_t* ioDataSize, void* outData) {
  if (!ioDataSize || !outData) return kAudioHardwareIllegalOperationError;
  if (*ioDataSize < kReservationHogModeDataSize) return kAudioHardwareBadPropertySizeError;
  std::int32_t pid = -1;
  const OSStatus status = reservation.ownerPID(card, &pid);
  if (status != kNoErr) return status;
  std::memcpy(outData, &pid, sizeof pid);
  *ioDataSize = kReservationHogModeDataSize;
  return kNoErr;
}

OSStatus ToggleReservationHogMode(DeviceReservation& reservation, std::uint32_t card,
                                  const std::string& deviceName, std::uint32_t dataSize,
                                  void* data) {
  if (!data) return kAudioHardwareIllegalOperationError;
  if (dataSize < kReservationHogModeDataSize) return kAudioHardwareBadPropertySizeError;
  std::int32_t owner = 0;
  OSStatus status = kNoErr;
  if (reservation.holds(card)) {
    status = reservation.giveBack(card);
    owner = -1;
  } else {
    status = reservation.take(card, deviceName);
    owner = getpid();
  }
  if (status == kNoErr) std::memcpy(data, &owner, sizeof owner);
  return status;
}

}  // namespace harkwell
