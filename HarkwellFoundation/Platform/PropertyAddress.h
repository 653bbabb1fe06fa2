// The shape of the platform seam: objects with 32-bit IDs whose properties are addressed by
// (selector, scope, element), and calls that answer with a signed 32-bit status.
#pragma once

#include <cstdint>

#include "HarkwellFoundation/HarkwellFoundationExport.h"

namespace harkwell {

using ObjectID = std::uint32_t;
using OSStatus = std::int32_t;

constexpr OSStatus kNoErr = 0;

struct HARKWELL_EXPORT PropertyAddress {
  std::uint32_t mSelector = 0;
  std::uint32_t mScope = 0;
  std::uint32_t mElement = 0;

  friend bool operator==(const PropertyAddress&, const PropertyAddress&) = default;
};

}  // namespace harkwell
