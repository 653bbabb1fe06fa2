#include "HarkwellFoundation/Platform/Linux/Reservation/internal/ReservationHogMode.h"

#include <unistd.h>

#include <cstring>
#include <string>

#include "HarkwellFoundation/Platform/AudioHardwareConstants.h"

namespace harkwell {

OSStatus ReservationHogMode::dataSize(std::uint32_t* outDataSize) const {
  if (cardStatus_ != kNoErr) return cardStatus_;
  if (!outDataSize) return kAudioHardwareIllegalOperationError;
  *outDataSize = sizeof(std::int32_t);
  return kNoErr;
}

OSStatus ReservationHogMode::read(std::uint32_t* ioDataSize, void* outData) const {
  if (cardStatus_ != kNoErr) return cardStatus_;
  if (!ioDataSize || !outData) return kAudioHardwareIllegalOperationError;
  if (*ioDataSize < sizeof(std::int32_t)) return kAudioHardwareBadPropertySizeError;
  std::int32_t pid = -1;
  const OSStatus status = reservation_.ownerPID(card_, &pid);
  if (status != kNoErr) return status;
  std::memcpy(outData, &pid, sizeof pid);
  *ioDataSize = sizeof pid;
  return kNoErr;
}

OSStatus ReservationHogMode::write(std::uint32_t dataSize, void* data) const {
  if (cardStatus_ != kNoErr) return cardStatus_;
  if (!data) return kAudioHardwareIllegalOperationError;
  if (dataSize < sizeof(std::int32_t)) return kAudioHardwareBadPropertySizeError;
  std::int32_t owner = 0;
  OSStatus status = kNoErr;
  if (reservation_.holds(card_)) {
    status = reservation_.giveBack(card_);
    owner = -1;
  } else {
    // Other programs read this as the device we hold: ALSA's name for the card.
    status = reservation_.take(card_, "hw:" + std::to_string(card_));
    owner = getpid();
  }
  if (status == kNoErr) std::memcpy(data, &owner, sizeof owner);
  return status;
}

}  // namespace harkwell
