#include "tools/harkwell/WatchPrinter.h"

#include <cstdio>
#include <ctime>

#include "tools/harkwell/ConsumerJson.h"
#include "tools/harkwell/ConsumerText.h"
#include "tools/harkwell/DeviceJson.h"
#include "tools/harkwell/DeviceTable.h"
#include "tools/harkwell/TerminalText.h"

namespace harkwell::cli {
namespace {

std::string LocalClockText(std::chrono::system_clock::time_point time) {
  using namespace std::chrono;
  const auto millis = duration_cast<milliseconds>(time.time_since_epoch()).count();
  const std::time_t whole = static_cast<std::time_t>(millis / 1000);
  std::tm local{};
  localtime_r(&whole, &local);
  char buffer[32];
  std::snprintf(buffer, sizeof buffer, "%02d:%02d:%02d.%03d", local.tm_hour, local.tm_min,
                local.tm_sec, static_cast<int>(millis % 1000));
  return buffer;
}

Colour EventColour(MediaDeviceEvent event) {
  switch (event) {
    case MediaDeviceEvent::InitialDiscovery:
      return Colour::Cyan;
    case MediaDeviceEvent::Connected:
      return Colour::Green;
    case MediaDeviceEvent::Disconnected:
      return Colour::Red;
    case MediaDeviceEvent::ChangedRunning:
    case MediaDeviceEvent::ChangedInputSource:
      return Colour::Yellow;
  }
  return Colour::Bold;
}

std::string Padded(std::string_view text, std::size_t width) {
  std::string out(text);
  if (out.size() < width) out.append(width - out.size(), ' ');
  return out;
}

// The columns an event line and a consumers line share.
std::string DeviceLine(std::chrono::system_clock::time_point time, std::string_view label,
                       Colour labelColour, const MediaDevice& device, const Painter& painter) {
  // Columns of fixed width first (the longest event name has 18 characters; IDs are right-aligned
  // in 5, as wide as they usually are), then the name and what only some devices have, so lines
  // printed minutes apart still line up.
  std::string id = std::to_string(device.deviceID);
  if (id.size() < 5) id.insert(0, 5 - id.size(), ' ');
  std::string line = LocalClockText(time) + "  " + painter.paint(Padded(label, 18), labelColour) +
                     "  " + std::string(caseName(device.mediaType)) + " " + id + "  " +
                     (device.isRunning ? painter.paint("running", Colour::Green) : "idle   ") +
                     "  " + EscapeForTerminal(device.name);
  if (device.inputSourceName) line += "  source: " + EscapeForTerminal(*device.inputSourceName);
  if (device.unsupportedReason) {
    line += "  " + painter.paint("unsupported: " + SupportText(device), Colour::Dim);
  }
  return line;
}

}  // namespace

std::string HumanEventLine(std::chrono::system_clock::time_point time, MediaDeviceEvent event,
                           const MediaDevice& device, const Painter& painter) {
  return DeviceLine(time, caseName(event), EventColour(event), device, painter);
}

std::string HumanConsumersLine(std::chrono::system_clock::time_point time,
                               const MediaDevice& device,
                               const std::vector<MediaDeviceConsumer>& consumers,
                               const Painter& painter) {
  return DeviceLine(time, "Consumers", Colour::Bold, device, painter) + "  " +
         ConsumersSummary(consumers);
}

std::string HumanUpdatingLine(std::chrono::system_clock::time_point time, bool finished,
                              const Painter& painter) {
  return LocalClockText(time) + "  " +
         painter.paint(finished ? "devices updated" : "updating devices", Colour::Dim);
}

bool WatchPrinter::printUpdating(bool finished) {
  const auto now = clock_();
  return out_.writeLine(json_ ? DumpLine(UpdatingLine(now, finished))
                              : HumanUpdatingLine(now, finished, painter_));
}

bool WatchPrinter::printEvent(MediaDeviceEvent event, const MediaDevice& device) {
  const auto now = clock_();
  return out_.writeLine(json_ ? DumpLine(EventLine(now, event, device))
                              : HumanEventLine(now, event, device, painter_));
}

bool WatchPrinter::printConsumers(const MediaDevice& device,
                                  const std::vector<MediaDeviceConsumer>& consumers) {
  const auto now = clock_();
  return out_.writeLine(json_ ? DumpLine(ConsumersLine(now, device, consumers))
                              : HumanConsumersLine(now, device, consumers, painter_));
}

}  // namespace harkwell::cli
