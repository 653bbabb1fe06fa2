// Installs the audio and video hardware services the command line asked for, before any device is
// read: PipeWire (or PulseAudio where no PipeWire daemon answers) and V4L2 (following PipeWire's
// graph where a daemon answers) by default, simulated
// ones (filled from a scenario file) or ones with no devices. Called once, on the main thread,
// before a controller is made.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tools/harkwell/CommandLine.h"
#include "tools/harkwell/ScenarioPlayer.h"

namespace harkwell::cli {

struct InstalledServices {
  // Present when a scenario file was given; its starting devices are already in place.
  std::unique_ptr<ScenarioPlayer> scenario;
  // The log lines real services wrote while they started, held back so that each command says
  // it its own way: `watch` passes them on to the log, `list` and `hog` report an unreachable
  // source in a line of their own.
  std::vector<std::string> startupLog;
  // Why a device source did not answer at start ("PulseAudio: no server answered (Connection
  // refused)"); its devices may still appear later, which only `watch` would see.
  std::optional<std::string> unreachableSource;
};

// What the choices resolve to once a scenario's presence is taken into account.
AudioChoice EffectiveAudioChoice(const ServiceOptions& options);
VideoChoice EffectiveVideoChoice(const ServiceOptions& options);

// What is wrong with the combination of `options` itself, before any file is read ("--sysfs-root
// ... need --video v4l2"); empty when nothing is. The command line refuses such a combination as a
// usage error.
std::optional<std::string> ServiceOptionsConflict(const ServiceOptions& options);

// Installs the services. On failure nothing usable is installed and the error explains why, ready
// to print ("scenario.json:3:14: ..." for a scenario that does not load).
struct ServiceSetup {
  std::optional<InstalledServices> services;
  std::string error;
};
ServiceSetup InstallServices(const ServiceOptions& options);

}  // namespace harkwell::cli
