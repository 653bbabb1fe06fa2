// The audio back end for the shared property and listener helpers: the installed audio hardware
// service and AudioDeviceLogWithStatus. Used by the audio property, listener and hog-mode code.
#pragma once

#include "HarkwellFoundation/Backend/internal/HardwareBackend.h"

namespace harkwell {

const HardwareBackend& AudioHardwareBackend();

}  // namespace harkwell
