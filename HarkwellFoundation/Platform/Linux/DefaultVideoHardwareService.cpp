// The video service a Linux process starts with. Until a real service answers, a simulated service
// with no devices stands in, so the library runs (and reports nothing) on any machine.
#include "HarkwellFoundation/Platform/HardwareService.h"
#include "HarkwellFoundation/Platform/Simulated/SimulatedHardwareServices.h"

namespace harkwell {

std::shared_ptr<VideoHardwareService> MakeDefaultVideoHardwareService() {
  return SimulatedVideoHardwareService::create();
}

}  // namespace harkwell
