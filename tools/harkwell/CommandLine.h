// The harkwell program's command line: which command runs and with which options. Parsing is done
// by CLI11; this file only declares the options and turns CLI11's outcome into a value, so main()
// and the tests see no exceptions.
#pragma once

#include <functional>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "tools/harkwell/BarFormats.h"

namespace CLI {
class App;
}

namespace harkwell::cli {

enum class Command { List, Watch, Hog, Model, Serve };
enum class HogAction { Status, On, Off };
// Automatic: PipeWire when a PipeWire daemon answers, else PulseAudio (the library's default).
enum class AudioChoice { Automatic, PipeWire, Pulse, Simulated, None };
enum class VideoChoice { V4L2, Simulated, None };

// Where devices come from. An unset choice means "the real service", or "simulated" when a
// scenario file is given.
struct ServiceOptions {
  std::optional<AudioChoice> audio;
  std::optional<VideoChoice> video;
  std::optional<std::string> scenarioPath;
  // Stand-ins for /sys, /dev and /proc, so a test tree can play the V4L2 platform.
  std::optional<std::string> sysfsRoot;
  std::optional<std::string> devRoot;
  std::optional<std::string> procRoot;
};

struct Options {
  Command command = Command::List;
  bool json = false;
  // watch, hog --hold: run this long; absent means until interrupted
  std::optional<double> durationSeconds;
  bool follow = false;  // watch --scenario: keep watching after the scenario's last step
  // watch --format: status-bar lines instead of event lines; absent: event lines (or --json)
  std::optional<BarFormat> barFormat;
  // watch --min-visible: how long a kind stays on the bar after it stopped being used
  double minVisibleSeconds = 1;
  bool verbose = false;  // -v: also the library's notes on expected conditions
  HogAction hogAction = HogAction::Status;
  std::string hogDevice;  // a decimal device ID or a device UID
  bool hold = false;      // hog on --hold: keep the device until Ctrl-C or durationSeconds
  ServiceOptions services;
};

// What parsing decided: run with `options`, or stop at once with `exitCode` (help and version
// requests stop with 0 after printing to `out`; errors stop with 2 after a message on `err`).
struct ParsedCommandLine {
  std::optional<Options> options;
  int exitCode = 0;
};

ParsedCommandLine ParseCommandLine(const std::vector<std::string>& arguments, std::ostream& out,
                                   std::ostream& err);

// Calls `visit` with the command line's own description, every command and option as the parser
// knows them, from which the manual page and the shell completions are generated.
void VisitCommandLineDefinition(const std::function<void(const CLI::App&)>& visit);

}  // namespace harkwell::cli
