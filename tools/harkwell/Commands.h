// The four commands of the harkwell program. Each runs on the main thread, installs the device
// sources it needs, prints its results to `out` and its complaints to `err`, and returns the
// process's exit status: 0 on success, 1 when the work could not be done (bad scenario, unknown
// device, exclusive access refused).
#pragma once

#include <vector>

#include "HarkwellFoundation/Model/MediaDevice.h"
#include "tools/harkwell/Colour.h"
#include "tools/harkwell/CommandLine.h"
#include "tools/harkwell/LineWriter.h"

namespace harkwell::cli {

struct CommandContext {
  LineWriter& out;
  LineWriter& err;
  Painter painter;  // for `out`
};

int RunList(const Options& options, CommandContext& context);
int RunWatch(const Options& options, CommandContext& context);
int RunHog(const Options& options, CommandContext& context);
int RunModel(const Options& options, CommandContext& context);

// The devices connected right now, audio then video, as a controller reports them once its initial
// discovery has run. Uses the installed services.
std::vector<MediaDevice> ConnectedDevicesNow();

// Puts services without devices in place of the ones a command used, so real services (their
// threads and connections) end before the program does.
void ReleaseServices();

}  // namespace harkwell::cli
