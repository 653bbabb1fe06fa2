// What a Linux audio service whose exclusive access is a sound card's reservation offers beyond the
// audio seam: the reservation it answers the hog-mode property from, and the card behind each
// device. A program that holds a card (harkwell hog on) uses them to tell who owns it and to hear
// when another program asks for it. Find it on the installed audio service with dynamic_cast.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>

#include "HarkwellFoundation/Platform/PropertyAddress.h"

namespace harkwell {

class DeviceReservation;

class SoundCardReservationSource {
 public:
  virtual ~SoundCardReservationSource() = default;
  // Null when the library is built without exclusive access to sound cards.
  virtual std::shared_ptr<DeviceReservation> deviceReservation() const = 0;
  // The card behind a present device; absent for a device without one or an absent device.
  virtual std::optional<std::uint32_t> soundCardOfDevice(ObjectID device) const = 0;
};

}  // namespace harkwell
