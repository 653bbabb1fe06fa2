// Prints the one table of ratios of the benchmark programs, each measurement beside its baseline
// from the same program and run, so the ratios mean the same on any machine. This list of pairs is
// the only one; the programs themselves print google benchmark's plain console output.
//
//   bench_table <folder>              every row, from the <program>.json files in the folder (what
//                                     scripts/bench.sh ends with)
//   bench_table <program>.json ...    only the rows of the programs given
//
// The files are google benchmark's --benchmark_out JSON; for one program alone:
//   build/release/bench/v4l2_bench --benchmark_out=v4l2_bench.json
//   build/release/bench/bench_table v4l2_bench.json
// A row whose program was not run, or whose benchmark was skipped, says so instead of a number.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace {

using nlohmann::json;

// How a value is read from one benchmark's result.
enum class Quantity {
  RealTime,         // real time per iteration, in the benchmark's time unit
  Microseconds,     // a counter holding microseconds
  CoreShareToHour,  // a counter holding the percentage of one core, shown as CPU time per hour
};

struct Measurement {
  std::string program;    // the results file's name without ".json"
  std::string benchmark;  // the benchmark's full name, as the JSON results give it
  Quantity quantity = Quantity::RealTime;
  std::string counter;  // for the counter quantities
};

struct Row {
  std::string what;
  Measurement measured;
  Measurement baseline;
};

const std::vector<Row>& Rows() {
  static const std::vector<Row> rows{
      {"seam: running-state read / the same call on the service",
       {"backend_bench", "BM_IsRunningThroughTheSeam"},
       {"backend_bench", "BM_IsRunningDirectServiceCall"}},
      {"seam: name read / the same call on the service",
       {"backend_bench", "BM_NameThroughTheSeam"},
       {"backend_bench", "BM_NameDirectServiceCall"}},
      {"audio device-list change, 64 devices / 8 devices",
       {"backend_bench", "BM_AudioNoteConnectedDevicesDidChange/64"},
       {"backend_bench", "BM_AudioNoteConnectedDevicesDidChange/8"}},
      {"audio device-list change, 1024 devices / 8 devices",
       {"backend_bench", "BM_AudioNoteConnectedDevicesDidChange/1024"},
       {"backend_bench", "BM_AudioNoteConnectedDevicesDidChange/8"}},
      // Deliveries that cross threads stand beside a bare two-thread round trip, their floor.
      {"simulated change to client callback / two-thread hand-off",
       {"controller_bench", "BM_SimulatedChangeToClient/real_time"},
       {"controller_bench", "BM_ThreadHandOffRoundTrip/real_time"}},
      {"observer note to client on its queue / two-thread hand-off",
       {"observer_bench", "BM_RunningEventDelivery/real_time"},
       {"observer_bench", "BM_ThreadHandOffRoundTrip/real_time"}},
      {"two-thread hand-off / bare function call",
       {"observer_bench", "BM_ThreadHandOffRoundTrip/real_time"},
       {"observer_bench", "BM_BareFunctionCall"}},
      {"PulseAudio ChangedRunning / server's own event, median",
       {"pulse_bench", "BM_RecordingStartToChangedRunning/iterations:1/real_time",
        Quantity::Microseconds, "client_median_us"},
       {"pulse_bench", "BM_RecordingStartToChangedRunning/iterations:1/real_time",
        Quantity::Microseconds, "server_event_median_us"}},
      {"PulseAudio ChangedRunning / server's own event, 99th pct",
       {"pulse_bench", "BM_RecordingStartToChangedRunning/iterations:1/real_time",
        Quantity::Microseconds, "client_p99_us"},
       {"pulse_bench", "BM_RecordingStartToChangedRunning/iterations:1/real_time",
        Quantity::Microseconds, "server_event_p99_us"}},
      {"PulseAudio ChangedRunning / bare event + state read, median",
       {"pulse_bench", "BM_RecordingStartToChangedRunning/iterations:1/real_time",
        Quantity::Microseconds, "client_median_us"},
       {"pulse_bench", "BM_RecordingStartToChangedRunning/iterations:1/real_time",
        Quantity::Microseconds, "state_read_median_us"}},
      {"PulseAudio ChangedRunning / bare event + state read, 99th pct",
       {"pulse_bench", "BM_RecordingStartToChangedRunning/iterations:1/real_time",
        Quantity::Microseconds, "client_p99_us"},
       {"pulse_bench", "BM_RecordingStartToChangedRunning/iterations:1/real_time",
        Quantity::Microseconds, "state_read_p99_us"}},
      {"PulseAudio consumer's PID and name known / server's own event, median",
       {"consumers_bench", "BM_RecordingStartToConsumerKnown/iterations:1/real_time",
        Quantity::Microseconds, "consumer_known_median_us"},
       {"consumers_bench", "BM_RecordingStartToConsumerKnown/iterations:1/real_time",
        Quantity::Microseconds, "server_event_median_us"}},
      {"PulseAudio consumer's PID and name known / bare event + stream read, median",
       {"consumers_bench", "BM_RecordingStartToConsumerKnown/iterations:1/real_time",
        Quantity::Microseconds, "consumer_known_median_us"},
       {"consumers_bench", "BM_RecordingStartToConsumerKnown/iterations:1/real_time",
        Quantity::Microseconds, "stream_read_median_us"}},
      {"PipeWire ChangedRunning / daemon's own event, median",
       {"pipewire_bench", "BM_RecorderStartToChangedRunning/iterations:1/real_time",
        Quantity::Microseconds, "client_median_us"},
       {"pipewire_bench", "BM_RecorderStartToChangedRunning/iterations:1/real_time",
        Quantity::Microseconds, "daemon_event_median_us"}},
      {"PipeWire ChangedRunning / daemon's own event, 99th pct",
       {"pipewire_bench", "BM_RecorderStartToChangedRunning/iterations:1/real_time",
        Quantity::Microseconds, "client_p99_us"},
       {"pipewire_bench", "BM_RecorderStartToChangedRunning/iterations:1/real_time",
        Quantity::Microseconds, "daemon_event_p99_us"}},
      {"PipeWire ChangedRunning / bare client's running floor, median",
       {"pipewire_bench", "BM_RecorderStartToChangedRunning/iterations:1/real_time",
        Quantity::Microseconds, "client_median_us"},
       {"pipewire_bench", "BM_RecorderStartToChangedRunning/iterations:1/real_time",
        Quantity::Microseconds, "floor_median_us"}},
      {"PipeWire ChangedRunning / bare client's running floor, 99th pct",
       {"pipewire_bench", "BM_RecorderStartToChangedRunning/iterations:1/real_time",
        Quantity::Microseconds, "client_p99_us"},
       {"pipewire_bench", "BM_RecorderStartToChangedRunning/iterations:1/real_time",
        Quantity::Microseconds, "floor_p99_us"}},
      {"PipeWire consumer's verified PID and name known / daemon's own event, median",
       {"pipewire_bench", "BM_RecorderStartToChangedRunning/iterations:1/real_time",
        Quantity::Microseconds, "consumer_known_median_us"},
       {"pipewire_bench", "BM_RecorderStartToChangedRunning/iterations:1/real_time",
        Quantity::Microseconds, "daemon_event_median_us"}},
      {"V4L2 running check (/proc scan) / fuser",
       {"v4l2_bench", "BM_ProcessNodeScan/0/real_time"},
       {"v4l2_bench", "BM_Fuser/0/real_time"}},
      {"V4L2 running check (/proc scan) / lsof",
       {"v4l2_bench", "BM_ProcessNodeScan/0/real_time"},
       {"v4l2_bench", "BM_Lsof/0/iterations:20/real_time"}},
      {"V4L2 running check (/proc scan) / starting /bin/true",
       {"v4l2_bench", "BM_ProcessNodeScan/0/real_time"},
       {"v4l2_bench", "BM_SpawnTrue/0/real_time"}},
      {"V4L2 running check / fuser, processor time",
       {"v4l2_bench", "BM_ProcessNodeScan/1/manual_time"},
       {"v4l2_bench", "BM_Fuser/1/manual_time"}},
      {"V4L2 running check / lsof, processor time",
       {"v4l2_bench", "BM_ProcessNodeScan/1/manual_time"},
       {"v4l2_bench", "BM_Lsof/1/iterations:20/manual_time"}},
      {"V4L2 open-and-stream to ChangedRunning / open-file signal, median",
       {"v4l2_bench", "BM_StreamToChangedRunning/iterations:200/manual_time",
        Quantity::Microseconds, "median_us"},
       {"v4l2_bench", "BM_OpenToChangedRunning/iterations:200/manual_time", Quantity::Microseconds,
        "median_us"}},
      {"V4L2 open-and-stream to ChangedRunning / open-file signal, 99th pct",
       {"v4l2_bench", "BM_StreamToChangedRunning/iterations:200/manual_time",
        Quantity::Microseconds, "p99_us"},
       {"v4l2_bench", "BM_OpenToChangedRunning/iterations:200/manual_time", Quantity::Microseconds,
        "p99_us"}},
      {"consumer details, 500 processes / their comm read alone",
       {"process_details_bench", "BM_ConsumerDetails/0/real_time"},
       {"process_details_bench", "BM_CommReadAlone/0/real_time"}},
      {"consumer details, 500 processes / one /proc descriptor scan",
       {"process_details_bench", "BM_ConsumerDetails/0/real_time"},
       {"process_details_bench", "BM_ProcessNodeScan/real_time"}},
      {"consumer details, 500 sandboxed fake /proc entries / their comm read alone",
       {"process_details_bench", "BM_ConsumerDetails/1/real_time"},
       {"process_details_bench", "BM_CommReadAlone/1/real_time"}},
      {"start-up to discovery's end / pactl list short sources",
       {"controller_bench", "BM_SwitchOnToDiscoveryEnd/real_time"},
       {"controller_bench", "BM_PactlListShortSources/real_time"}},
      {"connect + start-up / pactl list short sources",
       {"controller_bench", "BM_ConnectAndSwitchOn/real_time"},
       {"controller_bench", "BM_PactlListShortSources/real_time"}},
      {"idle observing controller: CPU per hour / same process idle",
       {"pulse_bench", "BM_IdleCPU/with_controller:1/iterations:1/real_time",
        Quantity::CoreShareToHour, "cpu_percent_of_one_core"},
       {"pulse_bench", "BM_IdleCPU/with_controller:0/iterations:1/real_time",
        Quantity::CoreShareToHour, "cpu_percent_of_one_core"}},
      {"PipeWire idle observing controller: CPU per hour / same process idle",
       {"pipewire_bench", "BM_IdleCPU/with_controller:1/iterations:1/real_time",
        Quantity::CoreShareToHour, "cpu_percent_of_one_core"},
       {"pipewire_bench", "BM_IdleCPU/with_controller:0/iterations:1/real_time",
        Quantity::CoreShareToHour, "cpu_percent_of_one_core"}},
  };
  return rows;
}

double NanosecondsPer(const std::string& unit) {
  if (unit == "us") return 1e3;
  if (unit == "ms") return 1e6;
  if (unit == "s") return 1e9;
  return 1;
}

// A value in the row's unit (nanoseconds for times, seconds of CPU per hour for core shares),
// or why there is none.
struct Value {
  std::optional<double> amount;
  std::string missing;
};

// Each program's results file.
using ResultFiles = std::map<std::string, std::string>;

Value Read(const ResultFiles& paths, const Measurement& measurement) {
  static std::map<std::string, std::optional<json>> files;
  auto& file = files[measurement.program];
  if (!file) {
    const auto path = paths.find(measurement.program);
    std::ifstream input(path == paths.end() ? std::string() : path->second);
    if (input) file = json::parse(input, nullptr, false);
  }
  if (!file || file->is_discarded() || !file->contains("benchmarks")) {
    return {std::nullopt, measurement.program + " not run"};
  }
  for (const auto& result : (*file)["benchmarks"]) {
    const std::string name = result.value("name", "");
    if (name != measurement.benchmark) continue;
    if (result.value("run_type", "iteration") != "iteration") continue;
    if (result.contains("error_occurred") && result["error_occurred"].get<bool>()) {
      return {std::nullopt, "skipped: " + result.value("error_message", std::string())};
    }
    switch (measurement.quantity) {
      case Quantity::RealTime:
        return {result.value("real_time", 0.0) * NanosecondsPer(result.value("time_unit", "ns")),
                ""};
      case Quantity::Microseconds:
        if (!result.contains(measurement.counter)) break;
        return {result[measurement.counter].get<double>() * 1e3, ""};
      case Quantity::CoreShareToHour:
        if (!result.contains(measurement.counter)) break;
        return {result[measurement.counter].get<double>() / 100 * 3600, ""};
    }
    return {std::nullopt, "no " + measurement.counter};
  }
  return {std::nullopt, measurement.benchmark + " not run"};
}

std::string Format(const Value& value, Quantity quantity) {
  if (!value.amount) return "-";
  char text[32];
  const double amount = *value.amount;
  if (quantity == Quantity::CoreShareToHour) {
    std::snprintf(text, sizeof text, "%.2f s/h", amount);
  } else if (amount >= 1e6) {
    std::snprintf(text, sizeof text, "%.2f ms", amount / 1e6);
  } else if (amount >= 1e3) {
    std::snprintf(text, sizeof text, "%.2f us", amount / 1e3);
  } else {
    std::snprintf(text, sizeof text, "%.1f ns", amount);
  }
  return text;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: %s <folder of benchmark JSON results> | <program>.json...\n",
                 argv[0]);
    return 2;
  }
  // A folder stands for every program's file in it; a file for its own program only.
  ResultFiles paths;
  std::set<std::string> shown;
  bool everyRow = false;
  for (int i = 1; i < argc; ++i) {
    const std::filesystem::path argument = argv[i];
    if (std::filesystem::is_directory(argument)) {
      everyRow = true;
      for (const auto& row : Rows()) {
        for (const Measurement* side : {&row.measured, &row.baseline}) {
          paths.try_emplace(side->program, (argument / (side->program + ".json")).string());
        }
      }
    } else {
      const std::string program = argument.stem().string();
      paths[program] = argument.string();
      shown.insert(program);
    }
  }
  std::printf("%-62s %12s %12s %10s\n", "measured / baseline (same program, same run)", "measured",
              "baseline", "ratio");
  for (const auto& row : Rows()) {
    if (!everyRow && (!shown.count(row.measured.program) || !shown.count(row.baseline.program))) {
      continue;
    }
    const Value measured = Read(paths, row.measured);
    const Value baseline = Read(paths, row.baseline);
    std::string ratio = "-";
    if (measured.amount && baseline.amount && *baseline.amount > 0) {
      char text[32];
      const double value = *measured.amount / *baseline.amount;
      // Small ratios keep three significant digits instead of rounding to 0.00.
      std::snprintf(text, sizeof text, value < 0.1 ? "%.3g" : "%.2f", value);
      ratio = text;
    } else if (measured.amount && baseline.amount) {
      ratio = "n/a";
    }
    std::printf("%-62s %12s %12s %10s", row.what.c_str(),
                Format(measured, row.measured.quantity).c_str(),
                Format(baseline, row.baseline.quantity).c_str(), ratio.c_str());
    if (!measured.amount || !baseline.amount) {
      std::printf("  (%s)", (!measured.amount ? measured : baseline).missing.c_str());
    }
    std::printf("\n");
  }
  return 0;
}
