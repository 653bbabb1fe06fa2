// The audio service a Linux process starts with, chosen once when it is made:
//   1. PipeWire, when the library is built with it and a PipeWire daemon answers (at
//      PIPEWIRE_REMOTE, else the user's "pipewire-0" socket) within a second: its own graph is
//      followed, not pipewire-pulse's picture of it. Not when PULSE_SERVER names a server and
//      PIPEWIRE_REMOTE is unset: whoever set PULSE_SERVER chose that server.
//   2. Otherwise PulseAudio, when the library is built with it. Without a server that service
//      reports no devices and one log line, and picks the server up when it starts.
//   3. Built with neither, a simulated service with no devices stands in, so the library runs (and
//      reports nothing) on any machine.
#include <chrono>
#include <cstdlib>

#include "HarkwellFoundation/Platform/HardwareService.h"
#include "HarkwellFoundation/Platform/Simulated/SimulatedHardwareServices.h"

#if defined(HARKWELL_WITH_PIPEWIRE)
#include "HarkwellFoundation/Platform/Linux/PipeWire/PipeWireHardwareService.h"
#endif
#if defined(HARKWELL_WITH_PULSEAUDIO)
#include "HarkwellFoundation/Platform/Linux/PulseAudio/PulseAudioHardwareService.h"
#endif

namespace harkwell {

std::shared_ptr<AudioHardwareService> MakeDefaultAudioHardwareService() {
#if defined(HARKWELL_WITH_PIPEWIRE)
  const bool pulseServerChosen = std::getenv("PULSE_SERVER") && !std::getenv("PIPEWIRE_REMOTE");
  if (!pulseServerChosen &&
      PipeWireGraphConnection::DaemonAnswers(std::nullopt, std::chrono::seconds(1))) {
    if (auto service = PipeWireHardwareService::create()) return service;
  }
#endif
#if defined(HARKWELL_WITH_PULSEAUDIO)
  // libpulse finds the server the usual way, PULSE_SERVER first.
  if (auto service = PulseAudioHardwareService::create()) return service;
#endif
  return SimulatedAudioHardwareService::create();
}

}  // namespace harkwell
