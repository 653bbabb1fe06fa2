// Turns what a MediaDeviceController reports into the lines `harkwell watch` prints: JSON objects
// one per line with --json, otherwise a readable line per bracket, per event and per change of a
// device's consumers. The controller
// calls it on its event-handler queue; the printer keeps no state besides its settings.
#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "HarkwellFoundation/Model/MediaDevice.h"
#include "HarkwellFoundation/Model/MediaDeviceConsumer.h"
#include "tools/harkwell/Colour.h"
#include "tools/harkwell/LineWriter.h"

namespace harkwell::cli {

using WallClock = std::function<std::chrono::system_clock::time_point()>;

// "01:52:20.123  Connected           Audio   100  running  USB Microphone  source: Line In"
// (local time). Device texts are escaped for the terminal.
std::string HumanEventLine(std::chrono::system_clock::time_point time, MediaDeviceEvent event,
                           const MediaDevice& device, const Painter& painter);
// "01:52:20.123  Consumers           Audio   100  running  USB Microphone  used by Recorder (pid
// 7)" (see ConsumersSummary), in the columns of the event lines.
std::string HumanConsumersLine(std::chrono::system_clock::time_point time,
                               const MediaDevice& device,
                               const std::vector<MediaDeviceConsumer>& consumers,
                               const Painter& painter);
// "01:52:20.123  updating devices" or "01:52:20.123  devices updated".
std::string HumanUpdatingLine(std::chrono::system_clock::time_point time, bool finished,
                              const Painter& painter);

class WatchPrinter {
 public:
  WatchPrinter(bool json, Painter painter, LineWriter& out,
               WallClock clock = std::chrono::system_clock::now)
      : json_(json), painter_(painter), out_(out), clock_(std::move(clock)) {}

  // Each returns false when the output can no longer be written.
  bool printUpdating(bool finished);
  bool printEvent(MediaDeviceEvent event, const MediaDevice& device);
  bool printConsumers(const MediaDevice& device, const std::vector<MediaDeviceConsumer>& consumers);

 private:
  const bool json_;
  const Painter painter_;
  LineWriter& out_;
  const WallClock clock_;
};

}  // namespace harkwell::cli
