#include "tools/harkwell/CommandLine.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <map>

#include "tools/harkwell/NearestWord.h"
#include "tools/harkwell/Seconds.h"
#include "tools/harkwell/ServiceSelection.h"
#include "tools/harkwell/TerminalText.h"

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
const std::map<std::string, BarFormat> kBarFormats{{"waybar", BarFormat::Waybar},
                                                   {"i3bar", BarFormat::I3bar},
                                                   {"i3status-rust", BarFormat::I3statusRust}};
const std::map<std::string, HogAction> kHogActions{
    {"status", HogAction::Status}, {"on", HogAction::On}, {"off", HogAction::Off}};

// The words of a choice: "none, pulse or simulated" with `last` " or ", "none|pulse|simulated"
// with `separator` and `last` "|".
template <class T>
std::string Words(const std::map<std::string, T>& choices, const std::string& separator,
                  const std::string& last) {
  std::string words;
  std::size_t index = 0;
  for (const auto& [word, value] : choices) {
    if (index > 0) words += index + 1 == choices.size() ? last : separator;
    words += word;
    ++index;
  }
  return words;
}

// One of the words of `choices` and nothing else (CLI11's own transformers would also take the
// enumeration's number, and show it in the help).
template <class T>
CLI::Validator OneOf(const std::map<std::string, T>& choices) {
  const std::string expected = "expected " + Words(choices, ", ", " or ");
  return CLI::Validator(
      [&choices, expected](std::string& text) -> std::string {
        if (choices.contains(text)) return {};
        return expected + ", not \"" + EscapeForTerminal(text) + "\"";
      },
      "", "");
}

// A finite number of seconds, at most kMaxSeconds, and more than 0 unless `zeroAllowed`:
// `--duration`, and `--min-visible` (whose 0 shows a kind only while it is in use). Checked on the
// text, before CLI11 converts it, so "nan", "inf" and "1e300" get the same plain message as "-1".
CLI::Validator Seconds(bool zeroAllowed) {
  const std::string expected =
      zeroAllowed ? "expected a number of seconds from 0 to " + std::to_string(kMaxWholeSeconds)
                  : "expected a number of seconds greater than 0 and at most " +
                        std::to_string(kMaxWholeSeconds);
  return CLI::Validator(
      [zeroAllowed, expected](std::string& text) -> std::string {
        char* end = nullptr;
        const double seconds = std::strtod(text.c_str(), &end);
        const bool wholeText = !text.empty() && end == text.c_str() + text.size();
        const bool aboveMinimum = zeroAllowed ? seconds >= 0 : seconds > 0;
        if (wholeText && std::isfinite(seconds) && aboveMinimum && seconds <= kMaxSeconds)
          return {};
        return expected;
      },
      "", "SECONDS");
}

// `hog`'s DEVICE: a number is looked up as a device ID, which is written without leading zeros;
// "0100" is refused rather than guessed at.
CLI::Validator DeviceIDWithoutLeadingZeros() {
  return CLI::Validator(
      [](std::string& text) -> std::string {
        const bool number =
            !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
        if (!number || text.size() == 1 || text[0] != '0') return {};
        return "a device ID is written without leading zeros, not \"" + text + "\"";
      },
      "", "");
}

// The values the service options are parsed into before they become optionals.
struct RawServiceOptions {
  std::string audio, video, scenarioPath, sysfsRoot, devRoot, procRoot;
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
          ->check(OneOf(kAudioChoices))
          ->type_name(Words(kAudioChoices, "|", "|"))
          ->group(group);
  raw.videoOption =
      command.add_option("--video", raw.video, "Video devices: v4l2 (default), simulated or none")
          ->check(OneOf(kVideoChoices))
          ->type_name(Words(kVideoChoices, "|", "|"))
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

// Whether `argument` is one of the device-source options, "--audio" or "--audio=none" alike.
bool IsServiceOption(const std::string& argument) {
  for (const std::string name :
       {"--audio", "--video", "--scenario", "--sysfs-root", "--dev-root", "--proc-root"}) {
    if (argument == name || argument.rfind(name + "=", 0) == 0) return true;
  }
  return false;
}

template <class T>
std::optional<T> IfGiven(const CLI::Option* option, const T& value) {
  return option->count() > 0 ? std::optional<T>(value) : std::nullopt;
}

ServiceOptions Collect(const RawServiceOptions& raw) {
  return ServiceOptions{
      .audio = raw.audioOption->count() > 0
                   ? std::optional<AudioChoice>(kAudioChoices.at(raw.audio))
                   : std::nullopt,
      .video = raw.videoOption->count() > 0
                   ? std::optional<VideoChoice>(kVideoChoices.at(raw.video))
                   : std::nullopt,
      .scenarioPath = IfGiven(raw.scenarioOption, raw.scenarioPath),
      .sysfsRoot = IfGiven(raw.sysfsOption, raw.sysfsRoot),
      .devRoot = IfGiven(raw.devOption, raw.devRoot),
      .procRoot = IfGiven(raw.procOption, raw.procRoot),
  };
}

// Where to read more: the help of the subcommand the error is in, or the program's.
std::string HelpPointer(const CLI::App& app) {
  const auto subcommands = app.get_subcommands();
  const std::string command =
      subcommands.empty() ? "harkwell" : "harkwell " + subcommands.back()->get_name();
  return "Run '" + command + " --help' for usage.\n";
}

std::string FailureMessage(const CLI::App* app, const CLI::Error& error) {
  return std::string("harkwell: ") + error.what() + "\n" + HelpPointer(*app);
}

// The first argument that is not one of the program's own options names the subcommand; CLI11
// would call a misspelt one an unexpected argument, or ask for a subcommand.
std::optional<std::string> UnknownSubcommandMessage(const std::vector<std::string>& names,
                                                    const std::vector<std::string>& arguments) {
  for (const auto& argument : arguments) {
    if (argument.empty() || argument[0] == '-') continue;
    if (std::find(names.begin(), names.end(), argument) != names.end()) return std::nullopt;
    std::string message = "harkwell: unknown subcommand \"" + EscapeForTerminal(argument) + "\"";
    if (const auto nearest = NearestWord(argument, names)) {
      message += "; did you mean \"" + *nearest + "\"?";
    }
    return message + "\nRun 'harkwell --help' for usage.\n";
  }
  return std::nullopt;
}

// The whole command line: every command and option, with the values they are parsed into. Parsing
// uses it, and so do the manual page and the shell completions, which are generated from it.
struct Definition {
  CLI::App app{"Shows the computer's microphones, speakers and cameras, and watches them change.",
               "harkwell"};
  Options options;
  double duration = 0;
  std::string hogAction;
  std::string barFormat;
  std::map<Command, RawServiceOptions> raw;
  CLI::App* list = nullptr;
  CLI::App* watch = nullptr;
  CLI::App* hog = nullptr;
  CLI::App* model = nullptr;
  CLI::App* serve = nullptr;
  CLI::Option* durationOption = nullptr;
  CLI::Option* jsonWatchOption = nullptr;
  CLI::Option* formatOption = nullptr;
  CLI::Option* minVisibleOption = nullptr;
  CLI::Option* holdDurationOption = nullptr;

  Definition() {
    app.require_subcommand(1);
    app.failure_message(FailureMessage);
    app.set_version_flag("--version", std::string("harkwell ") + HARKWELL_CLI_VERSION);

    const std::string verboseHelp =
        "Also show the library's notes on expected conditions (a device without a model UID)";
    app.add_flag("-v,--verbose", options.verbose, verboseHelp);

    list = app.add_subcommand("list",
                              "Print the connected devices, audio then video, and who uses each");
    list->add_flag("--json", options.json,
                   "Print one JSON array of device objects (with their consumers)");
    list->add_flag("-v,--verbose", options.verbose, verboseHelp);
    AddServiceOptions(*list, raw[Command::List]);

    watch = app.add_subcommand(
        "watch",
        "Print the devices found at start and every change (who uses them too) until interrupted");
    jsonWatchOption = watch->add_flag("--json", options.json, "Print one JSON object per line");
    formatOption =
        watch
            ->add_option("--format", barFormat,
                         "Print status-bar lines instead: waybar, i3bar or i3status-rust (one "
                         "line each time what the bar shows changes)")
            ->check(OneOf(kBarFormats))
            ->type_name(Words(kBarFormats, "|", "|"))
            ->excludes(jsonWatchOption);
    minVisibleOption = watch
                           ->add_option("--min-visible", options.minVisibleSeconds,
                                        "With --format: keep a device kind on the bar this many "
                                        "seconds after its use ends (default 1)")
                           ->check(Seconds(true))
                           ->needs(formatOption);
    durationOption = watch->add_option("--duration", duration, "Stop after this many seconds")
                         ->type_name("SECONDS")
                         ->check(Seconds(false));
    watch->add_flag("--follow", options.follow,
                    "With --scenario: keep watching after the scenario's last step");
    watch->add_flag("-v,--verbose", options.verbose, verboseHelp);
    AddServiceOptions(*watch, raw[Command::Watch]);

    hog = app.add_subcommand("hog", "Read, take or release exclusive access to a device");
    hog->add_option("action", hogAction, "status, on or off")
        ->required()
        ->check(OneOf(kHogActions))
        ->type_name(Words(kHogActions, "|", "|"));
    hog->add_option("device", options.hogDevice,
                    "A device ID (a number, looked up first) or a device UID")
        ->required()
        ->type_name("DEVICE")
        ->check(DeviceIDWithoutLeadingZeros());
    hog->add_flag("--json", options.json, "Print the answer as a JSON object");
    auto* holdOption = hog->add_flag(
        "--hold", options.hold,
        "With 'on': keep the device until Ctrl-C or --duration (the hold ends with harkwell)");
    holdDurationOption =
        hog->add_option("--duration", duration, "With --hold: let go after this many seconds")
            ->type_name("SECONDS")
            ->check(Seconds(false))
            ->needs(holdOption);
    hog->add_flag("-v,--verbose", options.verbose, verboseHelp);
    AddServiceOptions(*hog, raw[Command::Hog]);

    // `model` reads no devices, so it takes no device sources.
    model = app.add_subcommand("model", "Print the computer's model identifier");
    model->add_flag("--json", options.json, "Print the answer as a JSON object");
    model->add_flag("-v,--verbose", options.verbose, verboseHelp);

    serve = app.add_subcommand(
        "serve", "Offer the devices on the session bus as org.harkwell.Devices1 until stopped");
    serve->add_flag("-v,--verbose", options.verbose, verboseHelp);
    AddServiceOptions(*serve, raw[Command::Serve]);
  }
  Definition(const Definition&) = delete;
  Definition& operator=(const Definition&) = delete;
};

}  // namespace

void VisitCommandLineDefinition(const std::function<void(const CLI::App&)>& visit) {
  const Definition definition;
  visit(definition.app);
}

ParsedCommandLine ParseCommandLine(const std::vector<std::string>& arguments, std::ostream& out,
                                   std::ostream& err) {
  Definition definition;
  CLI::App& app = definition.app;
  Options& options = definition.options;
  auto* const list = definition.list;
  auto* const watch = definition.watch;
  auto* const hog = definition.hog;
  auto* const model = definition.model;
  auto* const serve = definition.serve;
  auto& raw = definition.raw;
  const std::string& hogAction = definition.hogAction;
  const double& duration = definition.duration;

  if (const auto unknown =
          UnknownSubcommandMessage({list->get_name(), watch->get_name(), hog->get_name(),
                                    model->get_name(), serve->get_name()},
                                   arguments)) {
    err << *unknown;
    return ParsedCommandLine{.options = std::nullopt, .exitCode = kUsageExitCode};
  }
  std::vector<const char*> argv{"harkwell"};
  for (const auto& argument : arguments) argv.push_back(argument.c_str());
  try {
    app.parse(static_cast<int>(argv.size()), argv.data());
  } catch (const CLI::ExtrasError&) {
    // CLI11 lists the extra arguments back to front; the first one, as typed, says enough.
    const auto extras = app.remaining(true);
    std::string message = "harkwell: unexpected argument \"" +
                          EscapeForTerminal(extras.empty() ? "" : extras.front()) + "\"";
    if (model->parsed() && !extras.empty() && IsServiceOption(extras.front())) {
      message += " ('model' reads no devices, so it takes no device options)";
    }
    err << message << "\n" << HelpPointer(app);
    return ParsedCommandLine{.options = std::nullopt, .exitCode = kUsageExitCode};
  } catch (const CLI::ParseError& error) {
    const int code = app.exit(error, out, err);
    return ParsedCommandLine{.options = std::nullopt, .exitCode = code == 0 ? 0 : kUsageExitCode};
  }
  if (!hogAction.empty()) options.hogAction = kHogActions.at(hogAction);
  if (!definition.barFormat.empty()) options.barFormat = kBarFormats.at(definition.barFormat);
  if (definition.holdDurationOption->count() > 0) options.durationSeconds = duration;
  if (options.hold && options.hogAction != HogAction::On) {
    err << "harkwell: --hold goes with 'hog on' only\n" << HelpPointer(app);
    return ParsedCommandLine{.options = std::nullopt, .exitCode = kUsageExitCode};
  }

  const std::pair<CLI::App*, Command> commands[] = {{list, Command::List},
                                                    {watch, Command::Watch},
                                                    {hog, Command::Hog},
                                                    {model, Command::Model},
                                                    {serve, Command::Serve}};
  for (const auto& [subcommand, command] : commands) {
    if (subcommand->parsed()) {
      options.command = command;
      if (command != Command::Model) options.services = Collect(raw[command]);
    }
  }
  if (definition.durationOption->count() > 0) options.durationSeconds = duration;
  // Options that parse one by one but not together are a usage error too.
  if (auto conflict = ServiceOptionsConflict(options.services)) {
    app.exit(CLI::ValidationError(*conflict), out, err);
    return ParsedCommandLine{.options = std::nullopt, .exitCode = kUsageExitCode};
  }
  return ParsedCommandLine{.options = options, .exitCode = 0};
}

}  // namespace harkwell::cli
