// The scenario file parser of the command-line program on arbitrary text. It must never crash,
// and whatever it accepts must be what it promises: steps in time order at non-negative times, and
// every plug step carrying the device of its own media type under the step's ID. Whatever it
// refuses has a position and a message without control bytes.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "tools/harkwell/Scenario.h"

namespace {

void Require(bool condition, const char* what) {
  if (condition) return;
  std::fprintf(stderr, "the parser breaks a promise: %s\n", what);
  std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  auto result = harkwell::cli::ParseScenario(text, "fuzz.json");
  if (const auto* error = std::get_if<harkwell::cli::ScenarioError>(&result)) {
    Require(!error->message.empty(), "an error without a message");
    Require(error->position.has_value(), "an error in the text without its position");
    for (const char c : error->message) {
      Require(static_cast<unsigned char>(c) >= 0x20 && c != 0x7F, "a control byte in a message");
    }
    return 0;
  }
  const auto& scenario = std::get<harkwell::cli::Scenario>(result);
  double previous = 0;
  for (const auto& step : scenario.steps) {
    Require(step.at >= previous, "steps out of time order");
    previous = step.at;
    if (step.action != harkwell::cli::ScenarioAction::Plug) continue;
    if (step.mediaType == harkwell::MediaType::Audio) {
      Require(step.audioDevice && step.audioDevice->deviceID == step.deviceID,
              "an audio plug step without its device");
    } else {
      Require(step.videoDevice && step.videoDevice->deviceID == step.deviceID,
              "a video plug step without its device");
    }
  }
  return 0;
}
