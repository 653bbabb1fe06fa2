// Simulated devices whose strings say what they are. Each time a device is plugged in it is a new
// incarnation: (media type, ID, generation) with its own input and output counts. Its UID and name
// spell these out ("audio-7.3", "audio-7.3 in 1 out 0"), so a record the library built can be
// checked on its own: every field must come from one incarnation, whatever happened to the
// simulated platform since. Long runs need no table of past devices that way.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "HarkwellFoundation/Model/MediaDevice.h"

namespace harkwell::testing {

struct DeviceIncarnation {
  MediaType mediaType = MediaType::Audio;
  std::uint32_t deviceID = 0;
  std::uint32_t generation = 0;
  std::uint32_t inputCount = 1;
  std::uint32_t outputCount = 0;

  std::string uid() const;
  std::string name() const;
  std::string modelUID() const;
  // The name of selectable input source `source`.
  static std::string inputSourceName(std::uint32_t source);
};

// Why `record` is not a complete record of one incarnation in the cache, or nothing when it is:
// the ID, media type, counts and model must agree with its UID and name, it must be connected and
// its unsupported reason must follow from its counts.
std::optional<std::string> CachedRecordProblem(const MediaDevice& record);

}  // namespace harkwell::testing
