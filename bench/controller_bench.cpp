// MediaDeviceController end to end:
//   BM_SimulatedChangeToClient  a simulated microphone starts or stops; the time until the
//                               client's ChangedRunning callback has run (service listener, queue
//                               hop, the observer's re-read through the seam, the controller).
//   BM_ThreadHandOffRoundTrip   its baseline: a bare round trip between two threads through a
//                               mutex and condition variable, the floor of any such delivery.
//   BM_SwitchOnToDiscoveryEnd   with the PulseAudio service already connected to a private
//                               daemon, switching observation on until the initial discovery's
//                               closing bracket.
//   BM_ConnectAndSwitchOn       the same, starting with connecting the service to the daemon.
//   BM_PactlListShortSources    their baseline: `pactl list short sources` on the same daemon, as a
//                               user would ask it (starting the program, connecting, listing).
#include <benchmark/benchmark.h>

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "HarkwellFoundation/Controller/MediaDeviceController.h"
#include "HarkwellFoundation/Platform/AudioHardwareConstants.h"
#include "HarkwellFoundation/Platform/Simulated/SimulatedHardwareServices.h"
#include "HarkwellFoundation/Platform/SystemLog.h"
#include "bench/ThreadHandOff.h"
#include "tests/support/ScopedHardwareServices.h"
#ifdef HARKWELL_WITH_PULSEAUDIO
#include "HarkwellFoundation/Platform/Linux/PulseAudio/PulseAudioHardwareService.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/PrivatePulseServer.h"
#endif

namespace harkwell {
namespace {

// A silent log sink, installed before main for the whole run: devices without a model (the private
// daemon's null devices among them) are logged at every read, which would bury the results.
const LogSink kPreviousLogSink = InstallLogSink([](std::string_view) {});

using testing::ScopedHardwareServices;

// Counts callbacks and lets the benchmark's thread wait for the next one.
class CallbackCounter {
 public:
  void add() {
    std::lock_guard lock(mutex_);
    ++count_;
    changed_.notify_all();
  }
  std::uint64_t count() const {
    std::lock_guard lock(mutex_);
    return count_;
  }
  // False when `count` was not reached within 10 s.
  bool waitFor(std::uint64_t count) const {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, std::chrono::seconds(10), [&] { return count_ >= count; });
  }

 private:
  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  std::uint64_t count_ = 0;
};

// Switches a controller on, with both callbacks counting, and waits for the initial discovery's
// closing bracket (the first `finished` true: the observers fill their caches silently).
bool SwitchOn(MediaDeviceController& controller, CallbackCounter& events,
              CallbackCounter& closingBrackets) {
  controller.setDeviceEventHandler(
      [&events](MediaDeviceEvent, const MediaDevice&) { events.add(); });
  controller.setUpdatingDevicesHandler([&closingBrackets](bool finished) {
    if (finished) closingBrackets.add();
  });
  const std::uint64_t before = closingBrackets.count();
  controller.setObserveDevices(true);
  return closingBrackets.waitFor(before + 1);
}

// Switches off; when it returns no callback of the controller runs any more.
void SwitchOff(MediaDeviceController& controller) {
  controller.setObserveDevices(false);
  controller.setDeviceEventHandler(nullptr);
  controller.setUpdatingDevicesHandler(nullptr);
  controller.deviceEventHandlerQueue()->sync([] {});
}

void BM_SimulatedChangeToClient(benchmark::State& state) {
  auto audio = SimulatedAudioHardwareService::create();
  audio->setRecordingCalls(false);
  constexpr ObjectID kMicrophone = 7;
  audio->addDevice(SimulatedAudioDevice{.deviceID = kMicrophone,
                                        .name = "Microphone",
                                        .deviceUID = "microphone",
                                        .transportType = kAudioDeviceTransportTypeUSB,
                                        .selectedDataSource = 1,
                                        .dataSourceNames = {{1, "Front"}}});
  ScopedHardwareServices installed(audio, SimulatedVideoHardwareService::create());
  auto controller = MediaDeviceController::create(DispatchQueue::createSerial("bench.controller"));
  CallbackCounter events;
  CallbackCounter closingBrackets;
  if (!SwitchOn(*controller, events, closingBrackets)) {
    state.SkipWithError("the initial discovery did not end");
    return;
  }
  bool running = false;
  for (auto _ : state) {
    const std::uint64_t next = events.count() + 1;
    running = !running;
    audio->setDeviceRunning(kMicrophone, running);
    if (!events.waitFor(next)) {
      state.SkipWithError("a change was not delivered");
      break;
    }
  }
  SwitchOff(*controller);
}
BENCHMARK(BM_SimulatedChangeToClient)->UseRealTime();

using bench::BM_ThreadHandOffRoundTrip;
BENCHMARK(BM_ThreadHandOffRoundTrip)->UseRealTime();

#ifdef HARKWELL_WITH_PULSEAUDIO
using testing::ChildProcess;
using testing::PrivatePulseServer;

// One private daemon for all the start-up benchmarks of a run.
PrivatePulseServer* SharedServer(std::string* error) {
  static PrivatePulseServer server;
  static const std::string startError =
      PrivatePulseServer::isInstalled() ? server.start() : "pulseaudio is not installed";
  *error = startError;
  return startError.empty() ? &server : nullptr;
}

std::shared_ptr<PulseAudioHardwareService> ConnectedService(const PrivatePulseServer& server) {
  PulseAudioHardwareService::Options options;
  options.server = server.address();
  return PulseAudioHardwareService::create(options);
}

// Times switching a fresh controller on until its initial discovery ends; with `connect`, each
// start also connects a new PulseAudio service to the daemon first.
void MeasureStartUps(benchmark::State& state, bool connect) {
  std::string error;
  PrivatePulseServer* server = SharedServer(&error);
  if (!server) {
    state.SkipWithError(error.c_str());
    return;
  }
  std::optional<ScopedHardwareServices> connected;
  if (!connect)
    connected.emplace(ConnectedService(*server), SimulatedVideoHardwareService::create());
  auto queue = DispatchQueue::createSerial("bench.start-up");
  CallbackCounter events;
  CallbackCounter closingBrackets;
  for (auto _ : state) {
    std::optional<ScopedHardwareServices> fresh;
    if (connect) fresh.emplace(ConnectedService(*server), SimulatedVideoHardwareService::create());
    auto controller = MediaDeviceController::create(queue);
    if (!SwitchOn(*controller, events, closingBrackets)) {
      state.SkipWithError("the initial discovery did not end");
      break;
    }
    state.PauseTiming();
    SwitchOff(*controller);
    fresh.reset();
    state.ResumeTiming();
  }
  state.counters["devices_discovered"] =
      benchmark::Counter(static_cast<double>(events.count()), benchmark::Counter::kAvgIterations);
}

void BM_SwitchOnToDiscoveryEnd(benchmark::State& state) {
  MeasureStartUps(state, false);
}
BENCHMARK(BM_SwitchOnToDiscoveryEnd)->UseRealTime()->Unit(benchmark::kMillisecond);

void BM_ConnectAndSwitchOn(benchmark::State& state) {
  MeasureStartUps(state, true);
}
BENCHMARK(BM_ConnectAndSwitchOn)->UseRealTime()->Unit(benchmark::kMillisecond);

void BM_PactlListShortSources(benchmark::State& state) {
  std::string error;
  PrivatePulseServer* server = SharedServer(&error);
  if (!server || !ChildProcess::findProgram("pactl")) {
    state.SkipWithError(server ? "pactl is not installed (Debian package pulseaudio-utils)"
                               : error.c_str());
    return;
  }
  const std::string output = server->folder() + "/pactl-bench.out";
  for (auto _ : state) {
    ChildProcess pactl;
    if (!pactl.start(
            {"pactl", "--server=" + server->address(), "list", "short", "sources"},
            {{"PATH", "/usr/local/bin:/usr/bin:/bin"}, {"HOME", server->folder() + "/home"}},
            output, &error)) {
      state.SkipWithError(error.c_str());
      break;
    }
    auto status = pactl.waitForExit(std::chrono::seconds(10));
    if (!status || *status != 0) {
      state.SkipWithError("pactl failed");
      break;
    }
  }
}
BENCHMARK(BM_PactlListShortSources)->UseRealTime()->Unit(benchmark::kMillisecond);
#endif

}  // namespace
}  // namespace harkwell

BENCHMARK_MAIN();
