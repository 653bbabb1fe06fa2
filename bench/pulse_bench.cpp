// The PulseAudio service against a private pulseaudio daemon:
//  (a) latency from a recording stream starting to the client's ChangedRunning, over 100 starts,
//      beside the latency of the server's own subscription event to a bare libpulse client that
//      listens the way `pactl subscribe` does, both measured on the same starts; median and 99th
//      percentile (bench_table puts them side by side);
//  (b) the CPU an observing controller uses over 10 s while nothing changes, beside the same
//      process over 10 s without it.
#include <benchmark/benchmark.h>
#include <pulse/subscribe.h>
#include <time.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <memory>
#include <optional>
#include <thread>
#include <vector>

#include "HarkwellFoundation/Controller/MediaDeviceController.h"
#include "HarkwellFoundation/Platform/Linux/PulseAudio/PulseAudioHardwareService.h"
#include "HarkwellFoundation/Platform/Simulated/SimulatedHardwareServices.h"
#include "tests/support/PrivatePulseServer.h"
#include "tests/support/PulseTestClient.h"
#include "tests/support/ScopedHardwareServices.h"
#include "tests/support/Waiting.h"

namespace harkwell {
namespace {

using Clock = std::chrono::steady_clock;
using testing::PrivatePulseServer;
using testing::PulseTestClient;
using testing::Recorder;

constexpr int kStarts = 100;

// A private daemon, the PulseAudio service installed process-wide (with no cameras), and a
// controller observing on its own queue, for one benchmark.
class ObservedServer {
 public:
  ObservedServer() {
    if (const std::string error = server_.start(); !error.empty()) {
      error_ = error;
      return;
    }
    PulseAudioHardwareService::Options options;
    options.server = server_.address();
    auto service = PulseAudioHardwareService::create(options);
    if (!service) {
      error_ = "the PulseAudio service did not start";
      return;
    }
    services_.install(service, SimulatedVideoHardwareService::create());
  }
  ~ObservedServer() {
    stopObserving();
    services_.restore();
  }
  ObservedServer(const ObservedServer&) = delete;
  ObservedServer& operator=(const ObservedServer&) = delete;

  const std::string& error() const { return error_; }
  const PrivatePulseServer& server() const { return server_; }

  // Starts a controller whose event handler passes every event to `handler`, and waits for its
  // initial discovery to end.
  void observe(MediaDeviceController::DeviceEventHandler handler) {
    controller_ = MediaDeviceController::create(queue_);
    auto finished = std::make_shared<Recorder<bool>>();
    controller_->setDeviceEventHandler(std::move(handler));
    controller_->setUpdatingDevicesHandler([finished](bool done) {
      if (done) finished->append(true);
    });
    controller_->setObserveDevices(true);
    finished->waitForCount(1);
  }
  // Stops observing; when it returns no handler runs any more.
  void stopObserving() {
    if (!controller_) return;
    controller_->setDeviceEventHandler(nullptr);
    controller_->setUpdatingDevicesHandler(nullptr);
    controller_->setObserveDevices(false);
    testing::DrainQueue(queue_);
    controller_.reset();
  }

 private:
  PrivatePulseServer server_;
  std::string error_;
  testing::ScopedHardwareServices services_;
  std::shared_ptr<DispatchQueue> queue_ = DispatchQueue::createSerial("bench.pulseaudio");
  std::shared_ptr<MediaDeviceController> controller_;
};

double Percentile(std::vector<double> values, double fraction) {
  if (values.empty()) return 0;
  std::sort(values.begin(), values.end());
  const auto rank = static_cast<std::size_t>(std::ceil(fraction * values.size()));
  return values[std::clamp<std::size_t>(rank, 1, values.size()) - 1];
}

double Median(std::vector<double> values) {
  if (values.empty()) return 0;
  std::sort(values.begin(), values.end());
  const std::size_t middle = values.size() / 2;
  return values.size() % 2 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

double MicrosecondsBetween(Clock::time_point from, Clock::time_point to) {
  return std::chrono::duration<double, std::micro>(to - from).count();
}

// (a)
void BM_RecordingStartToChangedRunning(benchmark::State& state) {
  if (!PrivatePulseServer::isInstalled()) {
    state.SkipWithError("pulseaudio is not installed (Debian package pulseaudio)");
    return;
  }
  // What the handlers record is declared before what calls them, so it outlives them.
  // When the client heard that the source started (true) or stopped (false) running:
  Recorder<std::pair<bool, Clock::time_point>> clientHeard;
  // When the bare client received the server's change event for the source:
  Recorder<Clock::time_point> serverEvents;
  const std::string sourceName = PrivatePulseServer::kNullSourceName;

  ObservedServer observed;
  if (!observed.error().empty()) {
    state.SkipWithError(observed.error().c_str());
    return;
  }
  observed.observe([&](MediaDeviceEvent event, const MediaDevice& device) {
    if (event == MediaDeviceEvent::ChangedRunning && device.deviceUID == sourceName) {
      clientHeard.append({device.isRunning, Clock::now()});
    }
  });

  PulseTestClient subscriber(observed.server().address());
  PulseTestClient recorder(observed.server().address());
  const auto sourceIndex = recorder.sourceIndex(sourceName);
  if (!subscriber.isConnected() || !recorder.isConnected() || !sourceIndex) {
    state.SkipWithError("the test clients could not connect");
    return;
  }
  subscriber.subscribe([&](unsigned facility, unsigned type, std::uint32_t index) {
    if (facility == PA_SUBSCRIPTION_EVENT_SOURCE && type == PA_SUBSCRIPTION_EVENT_CHANGE &&
        index == *sourceIndex) {
      serverEvents.append(Clock::now());
    }
  });

  std::vector<double> clientLatencies;
  std::vector<double> serverLatencies;
  for (auto _ : state) {
    for (int start = 0; start < kStarts; ++start) {
      clientHeard.clear();
      serverEvents.clear();
      const Clock::time_point started = Clock::now();
      auto recording = recorder.record(sourceName);
      if (!recording || !clientHeard.waitForCount(1) || !serverEvents.waitForCount(1)) {
        state.SkipWithError("a start was not reported");
        return;
      }
      clientLatencies.push_back(MicrosecondsBetween(started, clientHeard.entries()[0].second));
      serverLatencies.push_back(MicrosecondsBetween(started, serverEvents.entries()[0]));
      // Stop, and wait until both have seen the source go idle before the next start.
      serverEvents.clear();
      recording.reset();
      if (!clientHeard.waitForCount(2) || !serverEvents.waitForCount(1)) {
        state.SkipWithError("a stop was not reported");
        return;
      }
    }
  }

  observed.stopObserving();
  const double clientMedian = Median(clientLatencies);
  const double clientP99 = Percentile(clientLatencies, 0.99);
  const double serverMedian = Median(serverLatencies);
  const double serverP99 = Percentile(serverLatencies, 0.99);
  state.counters["starts"] = static_cast<double>(clientLatencies.size());
  state.counters["client_median_us"] = clientMedian;
  state.counters["client_p99_us"] = clientP99;
  state.counters["server_event_median_us"] = serverMedian;
  state.counters["server_event_p99_us"] = serverP99;
}
BENCHMARK(BM_RecordingStartToChangedRunning)
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

double ProcessCPUSeconds() {
  timespec now{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

// The process's CPU over `wall` of real time in which it does nothing of its own.
double CPUSecondsWhileIdle(std::chrono::seconds wall) {
  const double before = ProcessCPUSeconds();
  // The measurement is of doing nothing for this long; there is no event to wait for.
  std::this_thread::sleep_for(wall);
  return ProcessCPUSeconds() - before;
}

// (b) `with_controller` 1: a controller observes the daemon's devices; 0: the baseline, the same
// process and daemon without the service or the controller.
void BM_IdleCPU(benchmark::State& state) {
  if (!PrivatePulseServer::isInstalled()) {
    state.SkipWithError("pulseaudio is not installed (Debian package pulseaudio)");
    return;
  }
  constexpr std::chrono::seconds kWall{10};
  const bool withController = state.range(0) != 0;
  std::optional<ObservedServer> observed;
  PrivatePulseServer bareServer;
  if (withController) {
    observed.emplace();
    if (!observed->error().empty()) {
      state.SkipWithError(observed->error().c_str());
      return;
    }
    observed->observe([](MediaDeviceEvent, const MediaDevice&) {});
  } else if (const std::string error = bareServer.start(); !error.empty()) {
    state.SkipWithError(error.c_str());
    return;
  }
  double cpuSeconds = 0;
  for (auto _ : state) cpuSeconds = CPUSecondsWhileIdle(kWall);
  state.counters["cpu_ms"] = cpuSeconds * 1000;
  state.counters["cpu_percent_of_one_core"] = 100 * cpuSeconds / static_cast<double>(kWall.count());
}
BENCHMARK(BM_IdleCPU)
    ->ArgName("with_controller")
    ->Arg(0)
    ->Arg(1)
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

}  // namespace
}  // namespace harkwell

BENCHMARK_MAIN();
