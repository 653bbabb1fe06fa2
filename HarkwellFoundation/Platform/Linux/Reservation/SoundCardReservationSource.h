// What a Linux audio service whose exclusive access is a sound card's reservation offers beyond the
// audio seam: the reservation it answers the hog-mode property from, and the card behind each
// device. A program that holds a card (harkwell hog on) uses them to tell who owns it and to hear
// when another program asks for it. Find it on the installed audio service with dynamic_cast.
#pragma once

#include <charconv>
#include <cstdint>
#include <memory>
#include <optional>
#include <string_view>

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

// The card number a sound server gives in a device's properties ("alsa.card", "api.alsa.card");
// absent unless the text is a decimal number.
inline std::optional<std::uint32_t> SoundCardNumberFromProperty(std::string_view text) {
  std::uint32_t number = 0;
  const char* end = text.data() + text.size();
  const auto [stop, status] = std::from_chars(text.data(), end, number);
  if (text.empty() || status != std::errc() || stop != end) return std::nullopt;
  return number;
}

}  // namespace harkwell
