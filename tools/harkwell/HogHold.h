// What `harkwell hog on` does once it holds a device. The hold belongs to the harkwell process, so
// it ends when the program does: without --hold that is at once, and the program says so; with
// --hold it keeps the device until Ctrl-C (or SIGTERM), the end of --duration or its output
// closing, then lets go. Main thread only.
#pragma once

#include "HarkwellFoundation/Model/MediaDevice.h"
#include "tools/harkwell/Commands.h"

namespace harkwell::cli {

void HoldWhileAsked(const Options& options, const MediaDevice& device, CommandContext& context);

}  // namespace harkwell::cli
