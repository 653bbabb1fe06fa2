// The video back end for the shared property and listener helpers: the installed video hardware
// service and VideoDeviceLogWithStatus. Used by the video property, listener and hog-mode code.
#pragma once

#include "HarkwellFoundation/Backend/internal/HardwareBackend.h"

namespace harkwell {

const HardwareBackend& VideoHardwareBackend();

}  // namespace harkwell
