// The video service a Linux process starts with: the V4L2 service on the machine's own /sys, /dev
// and /proc, following PipeWire's graph where a PipeWire daemon answers
// (V4L2ServiceWithMediaServers.h). A machine without cameras (or without /sys/class/video4linux)
// has no devices, and the service keeps watching /dev so that a camera plugged in later appears. A
// build without V4L2 support uses a simulated service with no devices, so the library still runs
// everywhere.
#include "HarkwellFoundation/Platform/HardwareService.h"

#if defined(HARKWELL_WITH_V4L2)
#include "HarkwellFoundation/Platform/Linux/V4L2ServiceWithMediaServers.h"
#else
#include "HarkwellFoundation/Platform/Simulated/SimulatedHardwareServices.h"
#endif

namespace harkwell {

std::shared_ptr<VideoHardwareService> MakeDefaultVideoHardwareService() {
#if defined(HARKWELL_WITH_V4L2)
  return MakeV4L2ServiceWithMediaServers(V4L2HardwareService::Options());
#else
  return SimulatedVideoHardwareService::create();
#endif
}

}  // namespace harkwell
