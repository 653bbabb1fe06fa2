// The identifier of the computer's hardware model as the operating system reports it: on macOS
// the kernel's hw.model (for example "MacBookPro18,3"); on Linux the DMI product name (with the
// vendor in front where the product name alone is ambiguous) or, on machines without DMI, the
// device-tree model. Empty when it cannot be read or is not valid UTF-8; nothing is repaired or
// logged, nothing is kept, and every call asks again.
#pragma once

#include <optional>
#include <string>

#include "HarkwellFoundation/HarkwellFoundationExport.h"

namespace harkwell {

HARKWELL_EXPORT std::optional<std::string> ComputerModelIdentifier();

}  // namespace harkwell
