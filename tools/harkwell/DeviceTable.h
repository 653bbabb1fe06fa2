// The readable table `harkwell list` prints: one row per device, columns aligned, running devices
// marked with "*" (and in colour on a terminal). Every text that comes from a device is escaped,
// so a device name cannot move the cursor or change the terminal's state.
#pragma once

#include <string>
#include <vector>

#include "HarkwellFoundation/Model/MediaDevice.h"
#include "tools/harkwell/Colour.h"

namespace harkwell::cli {

// The whole table, header first, each line ending in '\n'. Without devices, one line saying so.
std::string RenderDeviceTable(const std::vector<MediaDevice>& devices, const Painter& painter);

// The text of the SUPPORTED column: "yes", or the reason the device is not supported.
std::string SupportText(const MediaDevice& device);

}  // namespace harkwell::cli
