// How `harkwell` shows who uses a device to a person: the lines under a device's row in the
// `list` table, and the summary at the end of a `watch` line. Every text a consumer brings
// (names, paths, IDs) is escaped for the terminal, as device texts are.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "HarkwellFoundation/Model/MediaDeviceConsumer.h"

namespace harkwell::cli {

// The name a person knows the consumer by: the application's name as it announced it, else the
// process name, else the executable, else "unknown process".
std::string ConsumerDisplayName(const MediaDeviceConsumer& consumer);

// "pid 4242" when the server or kernel vouched for it, "claimed pid 4242" when only the client
// said so, "pid unknown" when nobody knows it.
std::string ConsumerProcessText(const MediaDeviceConsumer& consumer);

// The lines `list` prints under each device's row, one text per entry of `lists` (empty for a
// device nobody uses). Each consumer takes a line: name, process ID, kind, then the executable
// (or process name) and the sandbox when known; what a filter or media server feeds follows it on
// lines of their own, indented by two more spaces after "-> ". Columns line up across all the
// lists; every line starts with `indent` spaces and ends in '\n'.
std::vector<std::string> ConsumerTableLines(
    const std::vector<std::vector<MediaDeviceConsumer>>& lists, std::size_t indent);

// What a `watch` line says about a device's consumers: "used by Recorder (pid 4242), pavucontrol
// (pid 900, LevelMeter), Echo-Cancel Source (pid 17, Filter) -> [Meeting (claimed pid 4300)]",
// or "used by nobody". Applications go without their kind.
std::string ConsumersSummary(const std::vector<MediaDeviceConsumer>& consumers);

}  // namespace harkwell::cli
