// A scenario: simulated devices that are present when the program starts, and timed steps that
// plug, unplug, start, stop, switch the input source of a device or change who uses it while
// `harkwell watch` runs.
// Written as JSON (the README documents the format; examples/scenario.json is one). Parsing checks
// everything a step will need, so a scenario that loads plays without surprises.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "HarkwellFoundation/Model/MediaDeviceConsumer.h"
#include "HarkwellFoundation/Model/MediaEnumerations.h"
#include "HarkwellFoundation/Platform/Simulated/SimulatedHardwareServices.h"
#include "tools/harkwell/JsonPositions.h"

namespace harkwell::cli {

enum class ScenarioAction { Plug, Unplug, Run, Stop, SelectSource, SetConsumers };

struct ScenarioStep {
  double at = 0;  // seconds after the devices present at start have been reported
  ScenarioAction action = ScenarioAction::Plug;
  MediaType mediaType = MediaType::Audio;  // of the device the step concerns
  ObjectID deviceID = 0;
  // Plug: the device that appears (the one matching mediaType).
  std::optional<SimulatedAudioDevice> audioDevice;
  std::optional<SimulatedVideoDevice> videoDevice;
  std::uint32_t inputSource = 0;               // SelectSource: the source ID to select
  std::vector<MediaDeviceConsumer> consumers;  // SetConsumers: who uses the device from now on
};

struct Scenario {
  std::vector<SimulatedAudioDevice> audioDevices;
  std::vector<SimulatedVideoDevice> videoDevices;
  std::vector<ScenarioStep> steps;  // in time order

  bool hasAudio() const;
  bool hasVideo() const;
};

// What went wrong, and where: "file:line:column: message", or "file: message" for a file that
// could not be read at all.
struct ScenarioError {
  std::string file;
  std::optional<TextPosition> position;
  std::string message;

  std::string text() const;
};

using ScenarioResult = std::variant<Scenario, ScenarioError>;

// Parses a scenario from `text`; `fileName` only labels errors.
ScenarioResult ParseScenario(std::string_view text, const std::string& fileName);
// Reads and parses the file at `path`. A file that cannot be read is an error without a position
// that gives the system's reason; a folder is refused as one.
ScenarioResult LoadScenarioFile(const std::string& path);

// The platform transport code a simulated device of `mediaType` reports for `transport`; empty
// when that media type has no code for it (there is no video AirPlay, for example).
std::optional<std::uint32_t> TransportCodeFor(MediaType mediaType,
                                              MediaDeviceTransportType transport);

}  // namespace harkwell::cli
