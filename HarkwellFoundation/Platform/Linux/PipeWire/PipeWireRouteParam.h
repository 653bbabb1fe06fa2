// Reads a device's route param (an EnumRoute or Route entry, an SPA pod) into a PipeWireRoute.
// Pure; any thread. Kept apart from the connection so it can be tested with pods built in a test.
#pragma once

#include <optional>

#include "HarkwellFoundation/Platform/Linux/PipeWire/PipeWireGraph.h"

struct spa_pod;

namespace harkwell {

// The route `param` describes; nullopt when it is not a route object or has no name. A chosen
// route's "device" becomes its only entry of `devices`; an enumerated route's "devices" array is
// copied as it is.
std::optional<PipeWireRoute> PipeWireRouteFromParam(const spa_pod* param);

}  // namespace harkwell
