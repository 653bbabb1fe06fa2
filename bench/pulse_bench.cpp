// The PulseAudio service against a private pulseaudio daemon:
//  (a) latency from a recording stream starting to the client's ChangedRunning, over 200 starts,
//      beside two floors measured on the same starts: the server's own subscription event to a
//      bare libpulse client that listens the way `pactl subscribe` does, and a bare libpulse
//      client that hears that event and reads the source's new state (the least any client that
//      reports "running" must do); median and 99th percentile (bench_table puts them side by
//      side);
//  (b) the CPU an observing controller uses over 10 s while nothing changes, beside the same
//      process over 10 s without it.
#include <benchmark/benchmark.h>
#include <pulse/pulseaudio.h>
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
#include "HarkwellFoundation/Platform/AudioHardwareConstants.h"
#include "HarkwellFoundation/Platform/Linux/PulseAudio/PulseAudioHardwareService.h"
#include "HarkwellFoundation/Platform/Linux/StableDeviceID.h"
#include "HarkwellFoundation/Platform/Simulated/SimulatedHardwareServices.h"
#include "bench/BarePulseSubscriber.h"
#include "bench/LatencyStatistics.h"
#include "tests/support/PrivatePulseServer.h"
#include "tests/support/PulseTestClient.h"
#include "tests/support/ScopedHardwareServices.h"
#include "tests/support/Waiting.h"

namespace harkwell {
namespace {

using bench::Clock;
using bench::Median;
using bench::MicrosecondsBetween;
using bench::Percentile;
using testing::PrivatePulseServer;
using testing::PulseTestClient;
using testing::Recorder;

constexpr int kStarts = 200;

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
    service_ = service;
  }
  ~ObservedServer() {
    stopObserving();
    services_.restore();
  }
  ObservedServer(const ObservedServer&) = delete;
  ObservedServer& operator=(const ObservedServer&) = delete;

  const std::string& error() const { return error_; }
  const PrivatePulseServer& server() const { return server_; }
  PulseAudioHardwareService& service() { return *service_; }

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
  std::shared_ptr<PulseAudioHardwareService> service_;
};

// The least any client must do to learn that a source started or stopped running: hear the
// server's change event for it and read the source's state. A bare libpulse client on a threaded
// main loop of its own, with nothing else: no mapping, mirror, queue hop or observer. Each change
// of the state it reads is recorded with the time the answer arrived.
class BareStateReader {
 public:
  using Heard = Recorder<std::pair<bool, Clock::time_point>>;

  BareStateReader(const std::string& server, std::uint32_t sourceIndex, Heard& heard)
      : sourceIndex_(sourceIndex),
        heard_(heard),
        subscriber_(server, PA_SUBSCRIPTION_MASK_SOURCE,
                    [this](pa_context* context, unsigned facility, unsigned type,
                           std::uint32_t index) { onEvent(context, facility, type, index); }) {}

  bool isReady() const { return subscriber_.isReady(); }

 private:
  void onEvent(pa_context* context, unsigned facility, unsigned type, std::uint32_t index) {
    if (facility != PA_SUBSCRIPTION_EVENT_SOURCE || type != PA_SUBSCRIPTION_EVENT_CHANGE ||
        index != sourceIndex_) {
      return;
    }
    pa_operation* reading =
        pa_context_get_source_info_by_index(context, index, &BareStateReader::onInfo, this);
    if (reading) pa_operation_unref(reading);
  }

  static void onInfo(pa_context*, const pa_source_info* info, int, void* userdata) {
    auto* self = static_cast<BareStateReader*>(userdata);
    if (!info) return;
    const bool running = info->state == PA_SOURCE_RUNNING;
    if (running == self->running_) return;
    self->running_ = running;
    self->heard_.append({running, Clock::now()});
  }

  const std::uint32_t sourceIndex_;
  Heard& heard_;
  bool running_ = false;  // on the subscriber's loop thread only
  // Last: its loop thread stops before the members above go.
  bench::BarePulseSubscriber subscriber_;
};

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
  // When the bare state reader read that the source started (true) or stopped (false) running:
  BareStateReader::Heard stateRead;
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
  // Where the time goes: the service's own listener on the source's running state, on a queue of
  // its own, beside the client's event that comes through the observer and the controller.
  Recorder<Clock::time_point> serviceHeard;
  const ObjectID sourceID = StableDeviceIDHome(StableIDSpace::Audio, sourceName);
  const PropertyAddress runningAddress{kAudioDevicePropertyDeviceIsRunningSomewhere,
                                       kAudioObjectPropertyScopeGlobal,
                                       kAudioObjectPropertyElementMaster};
  auto listenerQueue = DispatchQueue::createSerial("bench.pulseaudio.listener");
  auto serviceListener = std::make_shared<const PropertyListener>(
      [&](std::uint32_t, const PropertyAddress*) { serviceHeard.append(Clock::now()); });
  if (observed.service().addPropertyListenerBlock(sourceID, runningAddress, listenerQueue,
                                                  PlatformListenerBlock::copy(serviceListener)) !=
      kNoErr) {
    state.SkipWithError("cannot listen to the source");
    return;
  }
  BareStateReader reader(observed.server().address(), *sourceIndex, stateRead);
  if (!reader.isReady()) {
    state.SkipWithError("the bare state reader could not connect");
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
  std::vector<double> stateReadLatencies;
  std::vector<double> serviceLatencies;
  for (auto _ : state) {
    for (int start = 0; start < kStarts; ++start) {
      clientHeard.clear();
      serverEvents.clear();
      stateRead.clear();
      serviceHeard.clear();
      const Clock::time_point started = Clock::now();
      auto recording = recorder.record(sourceName);
      const char* missed = !recording                      ? "the recording did not start"
                           : !clientHeard.waitForCount(1)  ? "the client missed a start"
                           : !serverEvents.waitForCount(1) ? "the bare client missed a start"
                           : !stateRead.waitForCount(1)    ? "the state reader missed a start"
                                                           : nullptr;
      if (missed) {
        state.SkipWithError(missed);
        return;
      }
      clientLatencies.push_back(MicrosecondsBetween(started, clientHeard.entries()[0].second));
      serverLatencies.push_back(MicrosecondsBetween(started, serverEvents.entries()[0]));
      stateReadLatencies.push_back(MicrosecondsBetween(started, stateRead.entries()[0].second));
      if (serviceHeard.waitForCount(1)) {
        serviceLatencies.push_back(MicrosecondsBetween(started, serviceHeard.entries()[0]));
      }
      // Stop, and wait until all three have seen the source go idle before the next start.
      serverEvents.clear();
      recording.reset();
      missed = !clientHeard.waitForCount(2)    ? "the client missed a stop"
               : !serverEvents.waitForCount(1) ? "the bare client missed a stop"
               : !stateRead.waitForCount(2)    ? "the state reader missed a stop"
                                               : nullptr;
      if (missed) {
        state.SkipWithError(missed);
        return;
      }
    }
  }

  observed.service().removePropertyListenerBlock(sourceID, runningAddress, listenerQueue,
                                                 PlatformListenerBlock::copy(serviceListener));
  testing::DrainQueue(listenerQueue);
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
  state.counters["state_read_median_us"] = Median(stateReadLatencies);
  state.counters["state_read_p99_us"] = Percentile(stateReadLatencies, 0.99);
  // On a busy machine the medians of separate series drift apart from run to run; the ratio of
  // each start's client latency to the same start's state read shares that start's conditions.
  std::vector<double> pairedRatios;
  for (std::size_t i = 0; i < clientLatencies.size() && i < stateReadLatencies.size(); ++i) {
    if (stateReadLatencies[i] > 0)
      pairedRatios.push_back(clientLatencies[i] / stateReadLatencies[i]);
  }
  state.counters["client_over_state_read_paired_median"] = Median(pairedRatios);
  state.counters["service_listener_median_us"] = Median(serviceLatencies);
  state.counters["service_listener_p99_us"] = Percentile(serviceLatencies, 0.99);
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
