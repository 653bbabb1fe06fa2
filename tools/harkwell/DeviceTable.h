// The readable table `harkwell list` prints: one row per device, columns aligned, running devices
// marked with "*" (and in colour on a terminal), and under a device's row a line for each process
// that uses it (see ConsumerText.h). Every text that comes from a device is escaped,
// so a device name cannot move the cursor or change the terminal's state.
#pragma once

#include <string>
#include <vector>

#include "HarkwellFoundation/Model/MediaDevice.h"
#include "HarkwellFoundation/Model/MediaDeviceConsumer.h"
#include "tools/harkwell/Colour.h"

namespace harkwell::cli {

// `devices` in the order harkwell shows them: audio before video, each by device ID, so the same
// devices are always listed the same way whatever order the platform reports them in.
void SortForDisplay(std::vector<MediaDevice>& devices);

// The whole table, header first, each line ending in '\n', numbers right-aligned; empty without
// devices. `withLegend` adds a line that explains the "*" when some device is running (meant for a
// terminal, where a person reads it; a script reading a pipe gets the table alone). `consumers`
// gives who uses each device, by its position in `devices`; a device past its end, or with an
// empty list, has no lines under its row.
std::string RenderDeviceTable(const std::vector<MediaDevice>& devices, const Painter& painter,
                              bool withLegend,
                              const std::vector<std::vector<MediaDeviceConsumer>>& consumers = {});

// The text of the SUPPORTED column: "yes", or the reason the device is not supported.
std::string SupportText(const MediaDevice& device);

}  // namespace harkwell::cli
