// The commands of the harkwell program. Each runs on the main thread, installs the device
// sources it needs, prints its results to `out` and its complaints to `err`, and returns the
// process's exit status: 0 on success, 1 when the work could not be done (bad scenario, unknown
// device, exclusive access refused), kUnreachableSourceExitCode when a device source did not
// answer (`list` and `hog`).
#pragma once

#include <vector>

#include "HarkwellFoundation/Model/MediaDevice.h"
#include "HarkwellFoundation/Model/MediaDeviceConsumer.h"
#include "tools/harkwell/Colour.h"
#include "tools/harkwell/CommandLine.h"
#include "tools/harkwell/LineWriter.h"
#include "tools/harkwell/ServiceSelection.h"

namespace harkwell::cli {

// A device source could not be reached (no sound server answered), so the devices shown would
// not be all there are.
constexpr int kUnreachableSourceExitCode = 3;

struct CommandContext {
  LineWriter& out;
  LineWriter& err;
  Painter painter;  // for `out`
};

int RunList(const Options& options, CommandContext& context);
int RunWatch(const Options& options, CommandContext& context);
int RunHog(const Options& options, CommandContext& context);
int RunModel(const Options& options, CommandContext& context);
int RunServe(const Options& options, CommandContext& context);

// The devices connected right now, audio then video, as a controller reports them once its initial
// discovery has run. Uses the installed services.
std::vector<MediaDevice> ConnectedDevicesNow();
// Who uses each of `devices` now, by position; an empty list for a device nobody uses or whose
// service cannot tell. Uses the installed services.
std::vector<std::vector<MediaDeviceConsumer>> ConsumersOfDevicesNow(
    const std::vector<MediaDevice>& devices);

// For the commands that look once: false, after one line on `err`, when a device source did not
// answer; otherwise passes the services' start-up lines on to the log and returns true.
bool AllSourcesAnswered(const InstalledServices& services, LineWriter& err);

// Passes the services' start-up lines on to the log (`watch`: a source that did not answer may
// still start while it runs, as the line says).
void LogStartupLines(const InstalledServices& services);

// Puts services without devices in place of the ones a command used, so real services (their
// threads and connections) end before the program does.
void ReleaseServices();

}  // namespace harkwell::cli
