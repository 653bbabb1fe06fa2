#include "tools/harkwell/Scenario.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <initializer_list>
#include <limits>
#include <map>
#include <nlohmann/json.hpp>
#include <set>

#include "HarkwellFoundation/Backend/internal/TransportCodes.h"
#include "HarkwellFoundation/Platform/AudioHardwareConstants.h"
#include "HarkwellFoundation/Platform/DeviceConsumerCoding.h"
#include "HarkwellFoundation/Platform/internal/UTF8.h"
#include "tools/harkwell/Seconds.h"
#include "tools/harkwell/TerminalText.h"

namespace harkwell::cli {
namespace {

using nlohmann::json;
using Pointer = json::json_pointer;

constexpr std::string_view kActionNames[] = {"plug", "unplug",        "run",
                                             "stop", "select-source", "set-consumers"};

std::optional<ScenarioAction> ActionNamed(std::string_view name) {
  for (std::size_t i = 0; i < std::size(kActionNames); ++i) {
    if (kActionNames[i] == name) return static_cast<ScenarioAction>(i);
  }
  return std::nullopt;
}

// A text from the file, quoted for a message that goes to the terminal.
std::string Quoted(std::string_view text) {
  // Appended piece by piece: GCC 12 at -O3 takes `"\"" + std::string` for an overlapping copy
  // (-Wrestrict, a false positive).
  std::string quoted = "\"";
  quoted += EscapeForTerminal(text);
  quoted += '"';
  return quoted;
}

// "1, 2 and 5".
std::string ListOfIDs(const std::set<std::uint32_t>& ids) {
  std::string list;
  std::size_t index = 0;
  for (const auto id : ids) {
    if (index > 0) list += index + 1 == ids.size() ? " and " : ", ";
    list += std::to_string(id);
    ++index;
  }
  return list;
}

// The fields both kinds of simulated device share, read before the device is built.
struct DeviceFields {
  ObjectID deviceID = 0;
  std::optional<std::string> name;
  std::optional<std::string> deviceUID;
  std::optional<std::string> modelUID;
  std::uint32_t transportCode = 0;
  std::uint32_t inputStreamCount = 1;
  std::uint32_t outputStreamCount = 0;
  bool isRunning = false;
  std::int32_t hogModePID = -1;
  std::optional<std::uint32_t> selectedInputSource;
  std::map<std::uint32_t, std::optional<std::string>> inputSources;
  std::vector<MediaDeviceConsumer> consumers;
};

// What the parser knows about a device that is connected at some point of the timeline.
struct PresentDevice {
  MediaType mediaType = MediaType::Audio;
  std::optional<std::string> deviceUID;
  bool hasInputSources = false;
  std::set<std::uint32_t> inputSourceIDs;
};

class ScenarioParser {
 public:
  ScenarioParser(std::string_view text, std::string file) : text_(text), file_(std::move(file)) {}

  ScenarioResult parse() {
    if (auto invalid = invalidUTF8()) return *invalid;
    json document;
    try {
      document = json::parse(text_);
    } catch (const json::parse_error& error) {
      return syntaxError(error);
    } catch (const json::out_of_range& error) {
      return numberOverflowError(error);
    }
    Scenario scenario;
    if (readScenario(document, scenario)) return scenario;
    return *error_;
  }

 private:
  // The parser would quote the bytes around an ill-formed sequence as they are; the first one is
  // reported here instead, with its position and the byte escaped.
  std::optional<ScenarioError> invalidUTF8() const {
    for (std::size_t offset = 0; offset < text_.size();) {
      if (const auto sequence = DecodeUTF8(text_.substr(offset))) {
        offset += sequence->length;
        continue;
      }
      return ScenarioError{file_, PositionOfOffset(text_, offset),
                           "invalid UTF-8: the byte " + EscapeForTerminal(text_.substr(offset, 1)) +
                               " does not start or continue a character"};
    }
    return std::nullopt;
  }

  ScenarioError syntaxError(const json::parse_error& error) const {
    // nlohmann's message reads "[json.exception.parse_error.101] parse error at line 1,
    // column 2: syntax error while ..."; the position is given separately here.
    std::string message = error.what();
    const auto column = message.find(", column ");
    const auto colon = message.find(": ", column == std::string::npos ? 0 : column);
    if (colon != std::string::npos) message = message.substr(colon + 2);
    const std::size_t offset = error.byte > 0 ? error.byte - 1 : 0;
    return ScenarioError{file_, PositionOfOffset(text_, offset), EscapeForTerminal(message)};
  }

  // A number too large for a double ("1e999") fails while parsing, but without a position; the
  // message quotes the literal, whose first appearance in the text is where it stands.
  ScenarioError numberOverflowError(const json::out_of_range& error) const {
    const std::string message = error.what();
    std::size_t offset = 0;
    const auto open = message.find('\'');
    const auto close = message.rfind('\'');
    if (open != std::string::npos && close > open + 1) {
      const auto found = text_.find(message.substr(open + 1, close - open - 1));
      if (found != std::string_view::npos) offset = found;
    }
    return ScenarioError{file_, PositionOfOffset(text_, offset), "number too large"};
  }

  bool fail(const Pointer& at, std::string message, bool atKey = false) {
    if (!error_) {
      if (!positions_) positions_.emplace(text_);
      error_ =
          ScenarioError{file_, atKey ? positions_->keyPosition(at) : positions_->valuePosition(at),
                        std::move(message)};
    }
    return false;
  }

  bool checkKeys(const json& object, const Pointer& at,
                 std::initializer_list<std::string_view> allowed) {
    for (const auto& [key, value] : object.items()) {
      bool known = false;
      for (const auto name : allowed) known = known || key == name;
      if (!known) return fail(at / key, "unknown key " + Quoted(key), true);
    }
    return true;
  }

  bool requireObject(const json& value, const Pointer& at, std::string_view what) {
    if (value.is_object()) return true;
    return fail(at, std::string(what) + " must be an object");
  }

  // A required key whose value is a string: a device without a name or a UID would be left out
  // by the observer without a word, so null is refused.
  bool readRequiredText(const json& object, const Pointer& at, const std::string& key,
                        std::optional<std::string>& out) {
    if (!object.contains(key)) return fail(at, "missing key " + Quoted(key));
    const json& value = object.at(key);
    if (!value.is_string()) return fail(at / key, Quoted(key) + " must be a string");
    out = value.get<std::string>();
    return true;
  }

  // An optional key whose value is a string or null (a null reference, as when absent).
  bool readOptionalText(const json& object, const Pointer& at, const std::string& key,
                        std::optional<std::string>& out) {
    if (!object.contains(key)) return true;
    const json& value = object.at(key);
    if (value.is_null()) {
      out.reset();
      return true;
    }
    if (!value.is_string()) return fail(at / key, Quoted(key) + " must be a string or null");
    out = value.get<std::string>();
    return true;
  }

  template <class Integer>
  bool readInteger(const json& value, const Pointer& at, std::string_view what, Integer& out) {
    constexpr auto kMin = static_cast<long long>(std::numeric_limits<Integer>::min());
    constexpr auto kMax = static_cast<unsigned long long>(std::numeric_limits<Integer>::max());
    const std::string range = "from " + std::to_string(kMin) + " to " + std::to_string(kMax);
    if (value.is_number_unsigned()) {
      const auto number = value.get<unsigned long long>();
      if (number > kMax) return fail(at, std::string(what) + " must be " + range);
      out = static_cast<Integer>(number);
      return true;
    }
    if (value.is_number_integer()) {
      const auto number = value.get<long long>();
      if (number < kMin) return fail(at, std::string(what) + " must be " + range);
      out = static_cast<Integer>(number);
      return true;
    }
    return fail(at, std::string(what) + " must be a whole number " + range);
  }

  template <class Integer>
  bool readOptionalInteger(const json& object, const Pointer& at, const std::string& key,
                           Integer& out) {
    if (!object.contains(key)) return true;
    return readInteger(object.at(key), at / key, Quoted(key), out);
  }

  bool readOptionalBool(const json& object, const Pointer& at, const std::string& key, bool& out) {
    if (!object.contains(key)) return true;
    if (!object.at(key).is_boolean()) return fail(at / key, Quoted(key) + " must be true or false");
    out = object.at(key).get<bool>();
    return true;
  }

  bool readTransport(const json& object, const Pointer& at, MediaType mediaType,
                     std::uint32_t& out) {
    if (!object.contains("transportType")) return true;
    const json& value = object.at("transportType");
    const auto transport = value.is_string()
                               ? caseFromName<MediaDeviceTransportType>(value.get<std::string>())
                               : std::nullopt;
    if (!transport) {
      return fail(at / "transportType",
                  "\"transportType\" must be a transport name such as \"USB\" or \"BuiltIn\"");
    }
    const auto code = TransportCodeFor(mediaType, *transport);
    if (!code) {
      return fail(at / "transportType", std::string(caseName(mediaType)) +
                                            " devices have no transport " +
                                            Quoted(caseName(*transport)));
    }
    out = *code;
    return true;
  }

  bool readInputSources(const json& object, const Pointer& at, DeviceFields& fields) {
    if (object.contains("inputSources")) {
      const json& sources = object.at("inputSources");
      if (!requireObject(sources, at / "inputSources", "\"inputSources\"")) return false;
      for (const auto& [key, name] : sources.items()) {
        const Pointer where = at / "inputSources" / key;
        std::uint32_t sourceID = 0;
        std::size_t used = 0;
        unsigned long long parsed = 0;
        try {
          parsed = std::stoull(key, &used);
        } catch (const std::exception&) {
          used = 0;
        }
        if (used != key.size() || key.empty() || key[0] == '-' || parsed > 0xFFFFFFFFull) {
          return fail(where, "an input source key must be a source ID such as \"1\"", true);
        }
        sourceID = static_cast<std::uint32_t>(parsed);
        if (!name.is_string() && !name.is_null()) {
          return fail(where, "an input source name must be a string or null");
        }
        fields.inputSources[sourceID] =
            name.is_null() ? std::nullopt : std::optional<std::string>(name.get<std::string>());
      }
    }
    if (object.contains("selectedInputSource")) {
      std::uint32_t selected = 0;
      if (!readInteger(object.at("selectedInputSource"), at / "selectedInputSource",
                       "\"selectedInputSource\"", selected)) {
        return false;
      }
      if (!fields.inputSources.contains(selected)) {
        return fail(
            at / "selectedInputSource",
            fields.inputSources.empty()
                ? std::string("\"selectedInputSource\" needs \"inputSources\" to select from")
                : "\"selectedInputSource\" must be one of the \"inputSources\" (" +
                      ListOfIDs(SourceIDs(fields)) + ")");
      }
      fields.selectedInputSource = selected;
    } else if (!fields.inputSources.empty()) {
      return fail(at / "inputSources", "\"inputSources\" needs a \"selectedInputSource\"", true);
    }
    return true;
  }

  // "consumers": who uses a device, each with what a hardware service could tell of it. `depth`
  // counts the filters or media servers above the list; the seam carries at most
  // kMaxDeviceConsumerNesting of them.
  bool readConsumers(const json& list, const Pointer& at, std::string_view key, int depth,
                     std::vector<MediaDeviceConsumer>& out) {
    if (!list.is_array()) return fail(at, Quoted(key) + " must be an array of consumers");
    if (depth > kMaxDeviceConsumerNesting && !list.empty()) {
      return fail(at, "consumers may be fed through at most " +
                          std::to_string(kMaxDeviceConsumerNesting) + " filters or media servers");
    }
    for (std::size_t i = 0; i < list.size(); ++i) {
      MediaDeviceConsumer consumer;
      if (!readConsumer(list[i], at / i, depth, consumer)) return false;
      out.push_back(std::move(consumer));
    }
    return true;
  }

  template <class Enumeration>
  bool readCaseName(const json& object, const Pointer& at, const std::string& key,
                    Enumeration& out) {
    if (!object.contains(key)) return true;
    const json& value = object.at(key);
    const auto found =
        value.is_string() ? caseFromName<Enumeration>(value.get<std::string>()) : std::nullopt;
    if (!found) {
      std::string names;
      const auto& all = detail::CaseNames<Enumeration>::names;
      for (std::size_t i = 0; i < all.size(); ++i) {
        names += (i == 0 ? "" : i + 1 == all.size() ? " or " : ", ") + Quoted(all[i]);
      }
      return fail(at / key, Quoted(key) + " must be " + names);
    }
    out = *found;
    return true;
  }

  bool readConsumer(const json& object, const Pointer& at, int depth,
                    MediaDeviceConsumer& consumer) {
    if (!requireObject(object, at, "a consumer")) return false;
    if (!checkKeys(
            object, at,
            {"processID", "isProcessIDVerified", "executablePath", "processName", "applicationName",
             "applicationID", "sandbox", "sandboxApplicationID", "kind", "feeds"})) {
      return false;
    }
    if (!readOptionalInteger(object, at, "processID", consumer.processID)) return false;
    if (consumer.processID == 0 || consumer.processID < -1) {
      return fail(at / "processID",
                  "\"processID\" must be a process ID (1 or more), or -1 when it is not known");
    }
    if (!readOptionalBool(object, at, "isProcessIDVerified", consumer.isProcessIDVerified))
      return false;
    if (consumer.isProcessIDVerified && consumer.processID == -1) {
      return fail(at / "isProcessIDVerified", "only a known \"processID\" can be verified");
    }
    if (!readOptionalText(object, at, "executablePath", consumer.executablePath) ||
        !readOptionalText(object, at, "processName", consumer.processName) ||
        !readOptionalText(object, at, "applicationName", consumer.applicationName) ||
        !readOptionalText(object, at, "applicationID", consumer.applicationID) ||
        !readCaseName(object, at, "sandbox", consumer.sandbox) ||
        !readOptionalText(object, at, "sandboxApplicationID", consumer.sandboxApplicationID) ||
        !readCaseName(object, at, "kind", consumer.kind)) {
      return false;
    }
    if (consumer.sandboxApplicationID && consumer.sandbox == MediaDeviceConsumerSandbox::None) {
      return fail(at / "sandboxApplicationID",
                  "\"sandboxApplicationID\" needs a \"sandbox\" (\"Flatpak\" or \"Snap\")");
    }
    if (!object.contains("feeds")) return true;
    if (consumer.kind != MediaDeviceConsumerKind::Filter &&
        consumer.kind != MediaDeviceConsumerKind::MediaServer) {
      return fail(at / "feeds", "only a \"Filter\" or a \"MediaServer\" feeds other consumers",
                  true);
    }
    return readConsumers(object.at("feeds"), at / "feeds", "feeds", depth + 1, consumer.feeds);
  }

  bool readDeviceFields(const json& object, const Pointer& at, MediaType mediaType,
                        DeviceFields& fields) {
    if (!requireObject(object, at, "a device")) return false;
    if (mediaType == MediaType::Audio) {
      if (!checkKeys(object, at,
                     {"deviceID", "deviceUID", "name", "modelUID", "transportType",
                      "inputChannelCount", "outputChannelCount", "isRunning", "hogModePID",
                      "consumers", "inputSources", "selectedInputSource"})) {
        return false;
      }
    } else if (!checkKeys(object, at,
                          {"deviceID", "deviceUID", "name", "modelUID", "transportType",
                           "inputChannelCount", "outputChannelCount", "isRunning", "hogModePID",
                           "consumers"})) {
      return false;
    }
    if (!object.contains("deviceID")) return fail(at, "missing key \"deviceID\"");
    if (!readInteger(object.at("deviceID"), at / "deviceID", "\"deviceID\"", fields.deviceID))
      return false;
    if (fields.deviceID <= kAudioObjectSystemObject) {
      return fail(at / "deviceID", "\"deviceID\" must be 2 or more (1 is the system object)");
    }
    return readRequiredText(object, at, "deviceUID", fields.deviceUID) &&
           readRequiredText(object, at, "name", fields.name) &&
           readOptionalText(object, at, "modelUID", fields.modelUID) &&
           readTransport(object, at, mediaType, fields.transportCode) &&
           readOptionalInteger(object, at, "inputChannelCount", fields.inputStreamCount) &&
           readOptionalInteger(object, at, "outputChannelCount", fields.outputStreamCount) &&
           readOptionalBool(object, at, "isRunning", fields.isRunning) &&
           readOptionalInteger(object, at, "hogModePID", fields.hogModePID) &&
           (!object.contains("consumers") || readConsumers(object.at("consumers"), at / "consumers",
                                                           "consumers", 0, fields.consumers)) &&
           (mediaType == MediaType::Video || readInputSources(object, at, fields));
  }

  // Notes a device as connected from now on; IDs and UIDs must be unambiguous among them.
  bool connect(const DeviceFields& fields, MediaType mediaType, const Pointer& at) {
    if (const auto found = present_.find(fields.deviceID); found != present_.end()) {
      return fail(at / "deviceID", "device " + std::to_string(fields.deviceID) +
                                       " is already connected (as a " +
                                       std::string(caseName(found->second.mediaType)) + " device)");
    }
    if (fields.deviceUID) {
      for (const auto& [id, device] : present_) {
        if (device.deviceUID == fields.deviceUID) {
          return fail(at / "deviceUID", "device " + std::to_string(id) + " already has the UID " +
                                            Quoted(*fields.deviceUID));
        }
      }
    }
    present_[fields.deviceID] = PresentDevice{
        mediaType, fields.deviceUID, fields.selectedInputSource.has_value(), SourceIDs(fields)};
    return true;
  }

  static std::set<std::uint32_t> SourceIDs(const DeviceFields& fields) {
    std::set<std::uint32_t> ids;
    for (const auto& [id, name] : fields.inputSources) ids.insert(id);
    return ids;
  }

  // The fields both simulated device types share, under the same names.
  template <class Device>
  static Device SimulatedDevice(const DeviceFields& fields) {
    Device device;
    device.deviceID = fields.deviceID;
    device.name = fields.name;
    device.deviceUID = fields.deviceUID;
    device.modelUID = fields.modelUID;
    device.transportType = fields.transportCode;
    device.inputStreamCount = fields.inputStreamCount;
    device.outputStreamCount = fields.outputStreamCount;
    device.isRunning = fields.isRunning;
    device.hogModePID = fields.hogModePID;
    device.consumers = fields.consumers;
    return device;
  }

  static SimulatedAudioDevice AudioDevice(const DeviceFields& fields) {
    auto device = SimulatedDevice<SimulatedAudioDevice>(fields);
    device.selectedDataSource = fields.selectedInputSource;
    device.dataSourceNames = fields.inputSources;
    return device;
  }

  static SimulatedVideoDevice VideoDevice(const DeviceFields& fields) {
    return SimulatedDevice<SimulatedVideoDevice>(fields);
  }

  bool readDeviceList(const json& document, const std::string& key, MediaType mediaType,
                      Scenario& scenario) {
    if (!document.contains(key)) return true;
    const json& list = document.at(key);
    const Pointer at = Pointer() / key;
    if (!list.is_array()) return fail(at, Quoted(key) + " must be an array of devices");
    for (std::size_t i = 0; i < list.size(); ++i) {
      DeviceFields fields;
      if (!readDeviceFields(list[i], at / i, mediaType, fields)) return false;
      if (!connect(fields, mediaType, at / i)) return false;
      if (mediaType == MediaType::Audio) {
        scenario.audioDevices.push_back(AudioDevice(fields));
      } else {
        scenario.videoDevices.push_back(VideoDevice(fields));
      }
    }
    return true;
  }

  // "device": a connected device's ID (a number) or UID (a string).
  bool resolveDevice(const json& step, const Pointer& at, ObjectID& id, PresentDevice& device) {
    if (!step.contains("device")) return fail(at, "missing key \"device\"");
    const json& reference = step.at("device");
    const Pointer where = at / "device";
    if (reference.is_string()) {
      const auto uid = reference.get<std::string>();
      for (const auto& [presentID, present] : present_) {
        if (present.deviceUID == uid) {
          id = presentID;
          device = present;
          return true;
        }
      }
      return fail(where, "no connected device has the UID " + Quoted(uid) + " at this point");
    }
    if (!reference.is_number())
      return fail(where, "\"device\" must be a device ID or a device UID");
    if (!readInteger(reference, where, "\"device\"", id)) return false;
    const auto found = present_.find(id);
    if (found == present_.end()) {
      return fail(where, "no device with ID " + std::to_string(id) + " is connected at this point");
    }
    device = found->second;
    return true;
  }

  bool readStep(const json& value, const Pointer& at, double previousAt, ScenarioStep& step) {
    if (!requireObject(value, at, "a step")) return false;
    if (!value.contains("at")) return fail(at, "missing key \"at\"");
    // JSON has no NaN or infinity, and a number too large for a double fails to parse; the upper
    // bound keeps the step's time within the clock's range.
    const json& atValue = value.at("at");
    const double seconds = atValue.is_number() ? atValue.get<double>() : -1;
    if (!(seconds >= 0 && seconds <= kMaxSeconds)) {
      return fail(at / "at", "\"at\" must be a number of seconds from 0 to " +
                                 std::to_string(kMaxWholeSeconds));
    }
    step.at = seconds;
    if (step.at < previousAt) {
      return fail(at / "at", "steps must be in time order (this one comes before the step above)");
    }
    if (!value.contains("action")) return fail(at, "missing key \"action\"");
    const json& actionValue = value.at("action");
    const auto action =
        actionValue.is_string() ? ActionNamed(actionValue.get<std::string>()) : std::nullopt;
    if (!action) {
      return fail(
          at / "action",
          "\"action\" must be one of \"plug\", \"unplug\", \"run\", \"stop\", \"select-source\", "
          "\"set-consumers\"");
    }
    step.action = *action;

    if (step.action == ScenarioAction::Plug) {
      if (!checkKeys(value, at, {"at", "action", "mediaType", "device"})) return false;
      const json mediaTypeValue = value.value("mediaType", json());
      const auto mediaType = mediaTypeValue.is_string()
                                 ? caseFromName<MediaType>(mediaTypeValue.get<std::string>())
                                 : std::nullopt;
      if (!mediaType) {
        return fail(value.contains("mediaType") ? at / "mediaType" : at,
                    "a plug step needs \"mediaType\": \"Audio\" or \"Video\"");
      }
      if (!value.contains("device")) return fail(at, "missing key \"device\"");
      DeviceFields fields;
      if (!readDeviceFields(value.at("device"), at / "device", *mediaType, fields)) return false;
      if (!connect(fields, *mediaType, at / "device")) return false;
      step.mediaType = *mediaType;
      step.deviceID = fields.deviceID;
      if (*mediaType == MediaType::Audio) {
        step.audioDevice = AudioDevice(fields);
      } else {
        step.videoDevice = VideoDevice(fields);
      }
      return true;
    }

    if (step.action == ScenarioAction::SelectSource) {
      if (!checkKeys(value, at, {"at", "action", "device", "source"})) return false;
    } else if (step.action == ScenarioAction::SetConsumers) {
      if (!checkKeys(value, at, {"at", "action", "device", "consumers"})) return false;
    } else if (!checkKeys(value, at, {"at", "action", "device"})) {
      return false;
    }
    PresentDevice device;
    if (!resolveDevice(value, at, step.deviceID, device)) return false;
    step.mediaType = device.mediaType;
    switch (step.action) {
      case ScenarioAction::Unplug:
        present_.erase(step.deviceID);
        return true;
      case ScenarioAction::SelectSource:
        if (!device.hasInputSources) {
          return fail(at / "device", "device " + std::to_string(step.deviceID) +
                                         " has no input sources to select (an audio device "
                                         "needs \"selectedInputSource\")");
        }
        if (!value.contains("source")) return fail(at, "missing key \"source\"");
        if (!readInteger(value.at("source"), at / "source", "\"source\"", step.inputSource)) {
          return false;
        }
        if (!device.inputSourceIDs.contains(step.inputSource)) {
          return fail(at / "source", "\"source\" must be one of the device's \"inputSources\" (" +
                                         ListOfIDs(device.inputSourceIDs) + ")");
        }
        return true;
      case ScenarioAction::SetConsumers:
        if (!value.contains("consumers")) return fail(at, "missing key \"consumers\"");
        return readConsumers(value.at("consumers"), at / "consumers", "consumers", 0,
                             step.consumers);
      default:
        return true;
    }
  }

  bool readScenario(const json& document, Scenario& scenario) {
    if (!requireObject(document, Pointer(), "a scenario")) return false;
    if (!checkKeys(document, Pointer(), {"audio", "video", "steps"})) return false;
    if (!readDeviceList(document, "audio", MediaType::Audio, scenario)) return false;
    if (!readDeviceList(document, "video", MediaType::Video, scenario)) return false;
    if (!document.contains("steps")) return true;
    const json& steps = document.at("steps");
    const Pointer at = Pointer() / "steps";
    if (!steps.is_array()) return fail(at, "\"steps\" must be an array of steps");
    double previousAt = 0;
    for (std::size_t i = 0; i < steps.size(); ++i) {
      ScenarioStep step;
      if (!readStep(steps[i], at / i, previousAt, step)) return false;
      previousAt = step.at;
      scenario.steps.push_back(std::move(step));
    }
    return true;
  }

  std::string_view text_;
  std::string file_;
  std::optional<JsonPositions> positions_;
  std::optional<ScenarioError> error_;
  std::map<ObjectID, PresentDevice> present_;
};

}  // namespace

bool Scenario::hasAudio() const {
  if (!audioDevices.empty()) return true;
  for (const auto& step : steps) {
    if (step.mediaType == MediaType::Audio) return true;
  }
  return false;
}

bool Scenario::hasVideo() const {
  if (!videoDevices.empty()) return true;
  for (const auto& step : steps) {
    if (step.mediaType == MediaType::Video) return true;
  }
  return false;
}

std::string ScenarioError::text() const {
  const std::string shownFile = EscapeForTerminal(file);
  if (!position) return shownFile + ": " + message;
  return shownFile + ":" + std::to_string(position->line) + ":" + std::to_string(position->column) +
         ": " + message;
}

ScenarioResult ParseScenario(std::string_view text, const std::string& fileName) {
  return ScenarioParser(text, fileName).parse();
}

ScenarioResult LoadScenarioFile(const std::string& path) {
  const auto systemError = [&path](int error) {
    return ScenarioError{path, std::nullopt, std::strerror(error)};
  };
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return systemError(errno);
  std::string contents;
  struct stat status {};
  if (fstat(fd, &status) == 0 && S_ISDIR(status.st_mode)) {
    close(fd);
    return ScenarioError{path, std::nullopt, "is a folder, not a scenario file"};
  }
  for (;;) {
    char buffer[65536];
    const ssize_t count = read(fd, buffer, sizeof buffer);
    if (count == 0) break;
    if (count < 0) {
      if (errno == EINTR) continue;
      const int error = errno;
      close(fd);
      return systemError(error);
    }
    contents.append(buffer, static_cast<std::size_t>(count));
  }
  close(fd);
  return ParseScenario(contents, path);
}

std::optional<std::uint32_t> TransportCodeFor(MediaType mediaType,
                                              MediaDeviceTransportType transport) {
  return CodeForTransport(TransportCodesFor(mediaType), transport);
}

}  // namespace harkwell::cli
