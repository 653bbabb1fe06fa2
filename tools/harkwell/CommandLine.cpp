#include "tools/harkwell/CommandLine.h"

#include <CLI/CLI.hpp>
#include <cmath>
#include <cstdlib>
#include <map>

#include "tools/harkwell/Seconds.h"
#include "tools/harkwell/ServiceSelection.h"

// CMake passes the project's version; a compile outside it (the Apple sources' syntax check) has
// none, and the program tests check the version a real build prints.
#ifndef HARKWELL_CLI_VERSION
#define HARKWELL_CLI_VERSION "unknown"
#endif

namespace harkwell::cli {
namespace {

constexpr int kUsageExitCode = 2;

const std::map<std::string, AudioChoice> kAudioChoices{{"pipewire", AudioChoice::PipeWire},
                                                       {"pulse", AudioChoice::Pulse},
                                                       {"simulated", AudioChoice::Simulated},
                                                       {"none", AudioChoice::None}};
const std::map<std::string, VideoChoice> kVideoChoices{{"v4l2", VideoChoice::V4L2},
                                                       {"simulated", VideoChoice::Simulated},
                                                       {"none", VideoChoice::None}};
const std::map<std::string, HogAction> kHogActions{
    {"status", HogAction::Status}, {"on", HogAction::On}, {"off", HogAction::Off}};

// `--duration`: a finite number of seconds, more than 0 and at most kMaxSeconds. Checked on the
// text, before CLI11 converts it, so "nan", "inf" and "1e300" get the same plain message as "0".
CLI::Validator DurationSeconds() {
  return CLI::Validator(
      [](std::string& text) -> std::string {
        char* end = nullptr;
        const double seconds = std::strtod(text.c_str(), &end);
        const bool wholeText = !text.empty() && end == text.c_str() + text.size();
        if (wholeText && std::isfinite(seconds) && seconds > 0 && seconds <= kMaxSeconds) return {};
        return "expected a number of seconds greater than 0 and at most " +
               std::to_string(kMaxWholeSeconds);
      },
      "", "SECONDS");
}

// The values the service options are parsed into before they become optionals.
struct RawServiceOptions {
  AudioChoice audio = AudioChoice::Automatic;
  VideoChoice video = VideoChoice::V4L2;
  std::string scenarioPath, sysfsRoot, devRoot, procRoot;
  CLI::Option* audioOption = nullptr;
  CLI::Option* videoOption = nullptr;
  CLI::Option* scenarioOption = nullptr;
  CLI::Option* sysfsOption = nullptr;
  CLI::Option* devOption = nullptr;
  CLI::Option* procOption = nullptr;
};

// Every command takes the same service options, so each command's help lists them.
void AddServiceOptions(CLI::App& command, RawServiceOptions& raw) {
  const std::string group = "Device sources";
  raw.audioOption =
      command
          .add_option("--audio", raw.audio,
                      "Audio devices: pipewire, pulse, simulated or none (default: pipewire when "
                      "a PipeWire daemon answers, else pulse)")
          ->transform(CLI::CheckedTransformer(kAudioChoices))
          ->group(group);
  raw.videoOption =
      command.add_option("--video", raw.video, "Video devices: v4l2 (default), simulated or none")
          ->transform(CLI::CheckedTransformer(kVideoChoices))
          ->group(group);
  raw.scenarioOption =
      command
          .add_option("--scenario", raw.scenarioPath,
                      "JSON timeline of simulated devices and changes (implies simulated services)")
          ->type_name("FILE")
          ->group(group);
  raw.sysfsOption =
      command.add_option("--sysfs-root", raw.sysfsRoot, "Folder that stands in for /sys (v4l2)")
          ->type_name("DIR")
          ->group(group);
  raw.devOption =
      command.add_option("--dev-root", raw.devRoot, "Folder that stands in for /dev (v4l2)")
          ->type_name("DIR")
          ->group(group);
  raw.procOption =
      command.add_option("--proc-root", raw.procRoot, "Folder that stands in for /proc (v4l2)")
          ->type_name("DIR")
          ->group(group);
}

template <class T>
std::optional<T> IfGiven(const CLI::Option* option, const T& value) {
  return option->count() > 0 ? std::optional<T>(value) : std::nullopt;
}

ServiceOptions Collect(const RawServiceOptions& raw) {
  return ServiceOptions{
      .audio = IfGiven(raw.audioOption, raw.audio),
      .video = IfGiven(raw.videoOption, raw.video),
      .scenarioPath = IfGiven(raw.scenarioOption, raw.scenarioPath),
      .sysfsRoot = IfGiven(raw.sysfsOption, raw.sysfsRoot),
      .devRoot = IfGiven(raw.devOption, raw.devRoot),
      .procRoot = IfGiven(raw.procOption, raw.procRoot),
  };
}

std::string FailureMessage(const CLI::App*, const CLI::Error& error) {
  return std::string("harkwell: ") + error.what() + "\nRun 'harkwell --help' for usage.\n";
}

}  // namespace

ParsedCommandLine ParseCommandLine(const std::vector<std::string>& arguments, std::ostream& out,
                                   std::ostream& err) {
  CLI::App app{"Shows the computer's microphones, speakers and cameras, and watches them change.",
               "harkwell"};
  app.require_subcommand(1);
  app.failure_message(FailureMessage);
  app.set_version_flag("--version", std::string("harkwell ") + HARKWELL_CLI_VERSION);

  Options options;
  double duration = 0;
  std::map<Command, RawServiceOptions> raw;

  auto* list = app.add_subcommand("list", "Print the connected devices, audio then video");
  list->add_flag("--json", options.json, "Print one JSON array of device objects");
  AddServiceOptions(*list, raw[Command::List]);

  auto* watch = app.add_subcommand(
      "watch", "Print the devices found at start and every change until interrupted");
  watch->add_flag("--json", options.json, "Print one JSON object per line");
  auto* durationOption = watch->add_option("--duration", duration, "Stop after this many seconds")
                             ->type_name("SECONDS")
                             ->check(DurationSeconds());
  watch->add_flag("--follow", options.follow,
                  "With --scenario: keep watching after the scenario's last step");
  AddServiceOptions(*watch, raw[Command::Watch]);

  auto* hog = app.add_subcommand("hog", "Read, take or release exclusive access to a device");
  hog->add_option("action", options.hogAction, "status, on or off")
      ->required()
      ->transform(CLI::CheckedTransformer(kHogActions));
  hog->add_option("device", options.hogDevice, "A device UID or device ID")
      ->required()
      ->type_name("DEVICE");
  hog->add_flag("--json", options.json, "Print the answer as a JSON object");
  AddServiceOptions(*hog, raw[Command::Hog]);

  auto* model = app.add_subcommand("model", "Print the computer's model identifier");
  model->add_flag("--json", options.json, "Print the answer as a JSON object");
  AddServiceOptions(*model, raw[Command::Model]);

  std::vector<const char*> argv{"harkwell"};
  for (const auto& argument : arguments) argv.push_back(argument.c_str());
  try {
    app.parse(static_cast<int>(argv.size()), argv.data());
  } catch (const CLI::ParseError& error) {
    const int code = app.exit(error, out, err);
    return ParsedCommandLine{.options = std::nullopt, .exitCode = code == 0 ? 0 : kUsageExitCode};
  }

  const std::pair<CLI::App*, Command> commands[] = {
      {list, Command::List}, {watch, Command::Watch}, {hog, Command::Hog}, {model, Command::Model}};
  for (const auto& [subcommand, command] : commands) {
    if (subcommand->parsed()) {
      options.command = command;
      options.services = Collect(raw[command]);
    }
  }
  if (durationOption->count() > 0) options.durationSeconds = duration;
  // Options that parse one by one but not together are a usage error too (`model` reads no
  // devices, so it ignores the device-source options).
  if (options.command != Command::Model) {
    if (auto conflict = ServiceOptionsConflict(options.services)) {
      app.exit(CLI::ValidationError(*conflict), out, err);
      return ParsedCommandLine{.options = std::nullopt, .exitCode = kUsageExitCode};
    }
  }
  return ParsedCommandLine{.options = options, .exitCode = 0};
}

}  // namespace harkwell::cli
