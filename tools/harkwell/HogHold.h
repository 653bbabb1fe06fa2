// What `harkwell hog on` does once it holds a device. The hold belongs to the harkwell process, so
// it ends when the program does: without --hold that is at once, and the program says so; with
// --hold it keeps the device until Ctrl-C (or SIGTERM), the end of --duration or its output
// closing, then lets go. Main thread only.
#pragma once

#include "HarkwellFoundation/Model/MediaDevice.h"
#include "tools/harkwell/Commands.h"
#include "tools/harkwell/WatchLoop.h"

namespace harkwell::cli {

// `signals` is installed by the caller before it prints that it holds the device, so a Ctrl-C
// that follows the printed line ends the hold cleanly; null unless options.hold.
void HoldWhileAsked(const Options& options, const MediaDevice& device, CommandContext& context,
                    const StopSignals* signals);

}  // namespace harkwell::cli
