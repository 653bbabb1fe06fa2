// One audio device as a Linux sound service shows it, before it has an object ID: what a service's
// mapping makes of its server's state, and what MappedAudioDeviceMirror answers reads from. Values
// only.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "HarkwellFoundation/Model/MediaDeviceConsumer.h"

namespace harkwell {

// An input source a device can select: a jack, a built-in microphone, a line input.
struct MappedInputSource {
  std::string name;  // unique on the device; the key its input source ID is kept under
  std::string description;

  friend bool operator==(const MappedInputSource&, const MappedInputSource&) = default;
};

struct MappedAudioDevice {
  std::string uid;   // persistent identity; the device's object ID derives from it
  std::string name;  // what a person reads
  std::optional<std::string> modelUID;
  std::uint32_t transportType = 0;  // an audio transport code
  std::uint32_t inputStreamCount = 0;
  std::uint32_t outputStreamCount = 0;
  bool isRunning = false;
  // The input sources the device can select, and the selected one by name. Both empty for
  // devices without any.
  std::vector<MappedInputSource> inputSources;
  std::optional<std::string> selectedInputSource;
  // The ALSA card whose reservation is the device's exclusive access; absent for devices no sound
  // card stands behind (null sinks, network devices, Bluetooth).
  std::optional<std::uint32_t> soundCard;
  // Who uses the device, with the /proc details filled in.
  std::vector<MediaDeviceConsumer> consumers;

  friend bool operator==(const MappedAudioDevice&, const MappedAudioDevice&) = default;
};

}  // namespace harkwell
