// Where the project's values meet the SDK's: the library speaks the project's constants and
// property addresses, and on Apple they reach CoreAudio and CoreMediaIO unchanged, so each
// service checks at compile time that the values are the SDK's own and converts addresses
// field by field. Apple only.
#pragma once

#include <cstdint>

#include "HarkwellFoundation/Platform/PropertyAddress.h"

namespace harkwell {

// Whether a project constant and an SDK constant are the same 32-bit value (the SDK declares its
// constants as enumerators of assorted types).
template <class Project, class Sdk>
constexpr bool SameSdkValue(Project project, Sdk sdk) {
  return static_cast<std::uint32_t>(project) == static_cast<std::uint32_t>(sdk);
}

// AudioObjectPropertyAddress or CMIOObjectPropertyAddress from the project's address.
template <class NativeAddress>
NativeAddress ToNativeAddress(const PropertyAddress& address) {
  return NativeAddress{address.mSelector, address.mScope, address.mElement};
}

}  // namespace harkwell
