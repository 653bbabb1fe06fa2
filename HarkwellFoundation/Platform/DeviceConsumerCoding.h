// How a device's consumers cross the hardware service seam. The seam carries bytes, so a service
// answers the consumers property (kAudioDevicePropertyConsumers / kCMIODevicePropertyConsumers)
// with EncodeDeviceConsumers' bytes: size first with getPropertyDataSize, then the data, as for any
// list. A device with no consumers answers an encoding of the empty list. A service of one's own
// that does not know consumers answers the unknown-property status.
//
// The encoding is for one process only (native byte order): a version word, then each consumer's
// fixed fields, its five optional strings (length, or 0xFFFFFFFF for none, then UTF-8 bytes) and
// its fed consumers, nested.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "HarkwellFoundation/HarkwellFoundationExport.h"
#include "HarkwellFoundation/Model/MediaDeviceConsumer.h"

namespace harkwell {

HARKWELL_EXPORT std::vector<std::uint8_t> EncodeDeviceConsumers(
    const std::vector<MediaDeviceConsumer>& consumers);

// The consumers in `data`, or empty when the bytes are not a whole, valid encoding (truncated,
// trailing bytes, unknown kinds, consumers fed through more than kMaxDeviceConsumerNesting
// levels).
HARKWELL_EXPORT std::optional<std::vector<MediaDeviceConsumer>> DecodeDeviceConsumers(
    const void* data, std::size_t size);

inline constexpr int kMaxDeviceConsumerNesting = 8;

}  // namespace harkwell
