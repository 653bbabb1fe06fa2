#include "HarkwellFoundation/Platform/Linux/V4L2ServiceWithMediaServers.h"

#include <chrono>

#if defined(HARKWELL_WITH_PIPEWIRE)
#include "HarkwellFoundation/Platform/Linux/PipeWire/PipeWireCameraGraph.h"
#endif

namespace harkwell {

std::shared_ptr<V4L2HardwareService> MakeV4L2ServiceWithMediaServers(
    V4L2HardwareService::Options options, const std::optional<std::string>& pipewireRemote) {
#if defined(HARKWELL_WITH_PIPEWIRE)
  constexpr auto kAnswerTimeout = std::chrono::seconds(1);
  if (!options.mediaServerGraph &&
      PipeWireGraphConnection::DaemonAnswers(pipewireRemote, kAnswerTimeout)) {
    options.mediaServerGraph =
        PipeWireCameraGraph::start({.remote = pipewireRemote, .startupTimeout = kAnswerTimeout});
  }
#else
  (void)pipewireRemote;
#endif
  return V4L2HardwareService::create(std::move(options));
}

}  // namespace harkwell
