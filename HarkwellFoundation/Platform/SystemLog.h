// The system log: one line for each failed platform call. By default a line goes to stderr with a
// timestamp and the process ID; a program or a test installs its own sink to send lines elsewhere.
// The line reaches the sink exactly as composed: nothing is added, escaped or interpreted.
#pragma once

#include <functional>
#include <string_view>

#include "HarkwellFoundation/HarkwellFoundationExport.h"

namespace harkwell {

using LogSink = std::function<void(std::string_view line)>;

// Writes one line. Safe on any thread; the sink is called without any lock held.
HARKWELL_EXPORT void SystemLog(std::string_view line);

// Installs `sink` (an empty one restores the default) and returns the sink it replaces. Lines
// being written on other threads while the sink changes go to either the old or the new one.
HARKWELL_EXPORT LogSink InstallLogSink(LogSink sink);

}  // namespace harkwell
