// Prints the one table of ratios that scripts/bench.sh ends with. It reads the JSON results of the
// benchmark programs (google benchmark's --benchmark_out) from one folder and puts each measurement
// beside its baseline from the same program and run, so the ratios mean the same on any machine.
//
//   bench_table <folder with observer_bench.json, backend_bench.json, ...>
//
// A row whose program was not run, or whose benchmark was skipped, says so instead of a number.
#include <cstdio>
#include <fstream>
#include <map>
#include <optional>
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
  std::string benchmark;  // the start of the benchmark's name
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
      {"simulated change to client callback / bare function call",
       {"controller_bench", "BM_SimulatedChangeToClient"},
       {"controller_bench", "BM_BareCallback"}},
      {"observer note to client on its queue / bare function call",
       {"observer_bench", "BM_RunningEventDelivery"},
       {"observer_bench", "BM_BareFunctionCall"}},
      {"PulseAudio ChangedRunning / server's own event, median",
       {"pulse_bench", "BM_RecordingStartToChangedRunning", Quantity::Microseconds,
        "client_median_us"},
       {"pulse_bench", "BM_RecordingStartToChangedRunning", Quantity::Microseconds,
        "server_event_median_us"}},
      {"PulseAudio ChangedRunning / server's own event, 99th pct",
       {"pulse_bench", "BM_RecordingStartToChangedRunning", Quantity::Microseconds,
        "client_p99_us"},
       {"pulse_bench", "BM_RecordingStartToChangedRunning", Quantity::Microseconds,
        "server_event_p99_us"}},
      {"V4L2 running check (/proc scan) / fuser",
       {"v4l2_bench", "BM_ProcessNodeScan"},
       {"v4l2_bench", "BM_Fuser"}},
      {"V4L2 running check (/proc scan) / lsof",
       {"v4l2_bench", "BM_ProcessNodeScan"},
       {"v4l2_bench", "BM_Lsof"}},
      {"start-up to discovery's end / pactl list short sources",
       {"controller_bench", "BM_SwitchOnToDiscoveryEnd"},
       {"controller_bench", "BM_PactlListShortSources"}},
      {"connect + start-up / pactl list short sources",
       {"controller_bench", "BM_ConnectAndSwitchOn"},
       {"controller_bench", "BM_PactlListShortSources"}},
      {"idle observing controller: CPU per hour / same process idle",
       {"pulse_bench", "BM_IdleCPU/with_controller:1", Quantity::CoreShareToHour,
        "cpu_percent_of_one_core"},
       {"pulse_bench", "BM_IdleCPU/with_controller:0", Quantity::CoreShareToHour,
        "cpu_percent_of_one_core"}},
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

Value Read(const std::string& folder, const Measurement& measurement) {
  static std::map<std::string, std::optional<json>> files;
  auto& file = files[measurement.program];
  if (!file) {
    std::ifstream input(folder + "/" + measurement.program + ".json");
    if (input) file = json::parse(input, nullptr, false);
  }
  if (!file || file->is_discarded() || !file->contains("benchmarks")) {
    return {std::nullopt, measurement.program + " not run"};
  }
  for (const auto& result : (*file)["benchmarks"]) {
    const std::string name = result.value("name", "");
    if (name.rfind(measurement.benchmark, 0) != 0) continue;
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
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s <folder of benchmark JSON results>\n", argv[0]);
    return 2;
  }
  const std::string folder = argv[1];
  std::printf("%-62s %12s %12s %10s\n", "measured / baseline (same program, same run)", "measured",
              "baseline", "ratio");
  for (const auto& row : Rows()) {
    const Value measured = Read(folder, row.measured);
    const Value baseline = Read(folder, row.baseline);
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
