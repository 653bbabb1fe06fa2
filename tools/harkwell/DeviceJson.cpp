#include "tools/harkwell/DeviceJson.h"

#include <cstdio>
#include <ctime>

#include "HarkwellFoundation/Platform/internal/UTF8.h"
#include "tools/harkwell/TerminalText.h"

namespace harkwell::cli {
namespace {

Json OptionalText(const std::optional<std::string>& text) {
  return text ? Json(*text) : Json(nullptr);
}

std::string_view HogModeName(MediaDeviceHogMode::Kind kind) {
  switch (kind) {
    case MediaDeviceHogMode::Kind::NoProcess:
      return "NoProcess";
    case MediaDeviceHogMode::Kind::CurrentProcess:
      return "CurrentProcess";
    case MediaDeviceHogMode::Kind::OtherProcess:
      return "OtherProcess";
  }
  return "NoProcess";
}

}  // namespace

Json DeviceToJson(const MediaDevice& device) {
  Json object = Json::object();
  object["deviceID"] = device.deviceID;
  object["mediaType"] = caseName(device.mediaType);
  object["deviceUID"] = device.deviceUID;
  object["modelUID"] = OptionalText(device.modelUID);
  object["transportType"] = caseName(device.transportType);
  object["name"] = device.name;
  object["inputSourceName"] = OptionalText(device.inputSourceName);
  object["inputChannelCount"] = device.inputChannelCount;
  object["outputChannelCount"] = device.outputChannelCount;
  object["isConnected"] = device.isConnected;
  object["isRunning"] = device.isRunning;
  object["unsupportedReason"] =
      device.unsupportedReason ? Json(caseName(*device.unsupportedReason)) : Json(nullptr);
  return object;
}

std::string UtcTimestamp(std::chrono::system_clock::time_point time) {
  using namespace std::chrono;
  const auto micros = duration_cast<microseconds>(time.time_since_epoch());
  auto seconds = duration_cast<std::chrono::seconds>(micros);
  auto fraction = micros - seconds;
  if (fraction.count() < 0) {  // before 1970: keep the fraction positive
    seconds -= std::chrono::seconds(1);
    fraction += std::chrono::seconds(1);
  }
  const std::time_t whole = static_cast<std::time_t>(seconds.count());
  std::tm utc{};
  gmtime_r(&whole, &utc);
  char buffer[64];
  std::snprintf(buffer, sizeof buffer, "%04d-%02d-%02dT%02d:%02d:%02d.%06lldZ", utc.tm_year + 1900,
                utc.tm_mon + 1, utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec,
                static_cast<long long>(fraction.count()));
  return buffer;
}

Json WatchLine(std::chrono::system_clock::time_point time, std::string_view type) {
  Json line = Json::object();
  line["time"] = UtcTimestamp(time);
  line["type"] = type;
  return line;
}

Json UpdatingLine(std::chrono::system_clock::time_point time, bool finished) {
  Json line = WatchLine(time, "updating");
  line["finished"] = finished;
  return line;
}

Json EventLine(std::chrono::system_clock::time_point time, MediaDeviceEvent event,
               const MediaDevice& device) {
  Json line = WatchLine(time, "event");
  line["event"] = caseName(event);
  line["device"] = DeviceToJson(device);
  return line;
}

Json HogModeToJson(const MediaDeviceHogMode& mode) {
  Json object = Json::object();
  object["hogMode"] = HogModeName(mode.kind());
  const auto pid = mode.otherProcessPID();
  object["pid"] = pid ? Json(*pid) : Json(nullptr);
  return object;
}

std::string DumpLine(const Json& value) {
  const std::string dumped = value.dump(-1, ' ', false, Json::error_handler_t::replace);
  // The dump escapes C0 controls but keeps DEL, C1 controls and direction overrides as they are;
  // they become \u escapes too, as the table escapes them, so a terminal showing the JSON cannot
  // be steered. Outside strings a dump holds only ASCII punctuation, so this touches strings only.
  std::string line;
  line.reserve(dumped.size());
  for (std::size_t i = 0; i < dumped.size();) {
    const auto sequence = DecodeUTF8(std::string_view(dumped).substr(i));
    const std::size_t length = sequence ? sequence->length : 1;
    if (sequence && (sequence->codePoint == 0x7F || IsInvisibleFormatting(sequence->codePoint))) {
      char escape[8];
      std::snprintf(escape, sizeof escape, "\\u%04X", static_cast<unsigned>(sequence->codePoint));
      line += escape;
    } else {
      line.append(dumped, i, length);
    }
    i += length;
  }
  return line;
}

}  // namespace harkwell::cli
