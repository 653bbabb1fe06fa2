// One back end as the shared property and listener helpers see it: where its installed hardware
// service is found, and how its failures are written ("Audio Error ..." or "Video Error ...").
// The audio and video back ends each define one (AudioHardwareBackend(), VideoHardwareBackend()).
#pragma once

#include <memory>

#include "HarkwellFoundation/Backend/internal/HardwareFailureLog.h"
#include "HarkwellFoundation/Platform/HardwareService.h"

namespace harkwell {

struct HardwareBackend {
  // The service installed at the time of the call; called once per operation.
  std::shared_ptr<HardwareService> (*currentService)();
  HardwareFailureLog log;
};

}  // namespace harkwell
