// How a PulseAudio server's state becomes the audio devices this library shows: which sources and
// sinks count as devices and what each of their properties is. Pure functions of the state, so
// they are tested (and can be fuzzed) without a server. The table of rules is in
// PulseAudioHardwareService.h; the functions below implement it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "HarkwellFoundation/Platform/Linux/PulseAudio/PulseAudioServerState.h"

namespace harkwell {

// One device as the service presents it, before it is given an object ID.
struct PulseMappedDevice {
  PulseEndpointKind kind = PulseEndpointKind::Source;
  std::string uid;   // the source's or sink's name, unique on the server
  std::string name;  // its description
  std::optional<std::string> modelUID;
  std::uint32_t transportType = 0;  // an audio transport code
  std::uint32_t inputStreamCount = 0;
  std::uint32_t outputStreamCount = 0;
  bool isRunning = false;
  // The input sources a source can select (its ports), and the selected one by port name. Both
  // empty for sinks and for sources without ports.
  std::vector<PulsePort> inputSources;
  std::optional<std::string> selectedInputSource;
  // The ALSA card whose reservation is the device's exclusive access; absent for devices no sound
  // card stands behind (null sinks, network tunnels, Bluetooth).
  std::optional<std::uint32_t> soundCard;

  friend bool operator==(const PulseMappedDevice&, const PulseMappedDevice&) = default;
};

// Every device of the server: its sources other than monitors, then its sinks, each in the
// server's index order.
std::vector<PulseMappedDevice> MapPulseServerState(const PulseServerState& state);

// One source or sink; `card` is the card that owns it, or null.
PulseMappedDevice MapPulseEndpoint(const PulseEndpoint& endpoint, const PulseCard* card,
                                   const PulseServerState& state);

// The transport code from the device's and then the card's "device.bus", "device.api",
// "device.form_factor" and "device.class"; 0 (unknown) when nothing tells.
std::uint32_t PulseTransportTypeFor(const PulseEndpoint& endpoint, const PulseCard* card);

// "vendor:product" from "device.vendor.id" and "device.product.id" (the device's own, else the
// card's); absent unless both are known.
std::optional<std::string> PulseModelUIDFor(const PulseEndpoint& endpoint, const PulseCard* card);

// The ALSA card number from "alsa.card", else "api.alsa.card" (the device's own, else its card's);
// absent when neither is a decimal number.
std::optional<std::uint32_t> PulseSoundCardFor(const PulseEndpoint& endpoint,
                                               const PulseCard* card);

// Whether the device is in use by any process. A sink: its state is RUNNING. A source: its state
// is RUNNING and at least one recording stream on it is neither corked nor a level meter.
bool PulseEndpointIsRunning(const PulseEndpoint& endpoint, const PulseServerState& state);

}  // namespace harkwell
