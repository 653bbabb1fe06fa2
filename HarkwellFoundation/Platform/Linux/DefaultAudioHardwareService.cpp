// The audio service a Linux process starts with: PulseAudio when the library is built with it
// (also serving PipeWire through pipewire-pulse). Without a server that service reports no devices
// and one log line, and picks the server up when it starts. Built without PulseAudio, a simulated
// service with no devices stands in, so the library runs (and reports nothing) on any machine.
#include "HarkwellFoundation/Platform/HardwareService.h"
#include "HarkwellFoundation/Platform/Simulated/SimulatedHardwareServices.h"

#if defined(HARKWELL_HAVE_PULSEAUDIO)
#include "HarkwellFoundation/Platform/Linux/PulseAudio/PulseAudioHardwareService.h"
#endif

namespace harkwell {

std::shared_ptr<AudioHardwareService> MakeDefaultAudioHardwareService() {
#if defined(HARKWELL_HAVE_PULSEAUDIO)
  // libpulse finds the server the usual way, PULSE_SERVER first.
  if (auto service = PulseAudioHardwareService::create()) return service;
#endif
  return SimulatedAudioHardwareService::create();
}

}  // namespace harkwell
