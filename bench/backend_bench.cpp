// The audio back end on the simulated service: (a) one device-list change seen by an
// AudioDeviceObserver with 8, 64 and 1024 devices, every device read through the seam; (b) one
// property read through the seam (service lookup, status check, result conversion) beside the same
// getPropertyData call made on the simulated service directly. The simulated service's call record
// is switched off so that memory stays flat.
#include <benchmark/benchmark.h>

#include <memory>
#include <vector>

#include "HarkwellFoundation/Audio/AudioDeviceObserver.h"
#include "HarkwellFoundation/Audio/AudioDeviceProperties.h"
#include "HarkwellFoundation/Platform/AudioHardwareConstants.h"
#include "HarkwellFoundation/Platform/PlatformString.h"
#include "HarkwellFoundation/Platform/Simulated/SimulatedHardwareServices.h"

namespace harkwell {
namespace {

constexpr ObjectID kFirstDeviceID = 100;

SimulatedAudioDevice BenchDevice(ObjectID id) {
  return SimulatedAudioDevice{
      .deviceID = id,
      .name = "Device",
      .deviceUID = "uid",
      .modelUID = "model",
      .transportType = kAudioDeviceTransportTypeUSB,
      .selectedDataSource = 1,
      .dataSourceNames = {{1, "Front"}},
  };
}

// Installs a simulated audio service with `count` devices for the benchmark's lifetime.
class InstalledBenchService {
 public:
  explicit InstalledBenchService(std::uint32_t count)
      : service_(SimulatedAudioHardwareService::create()) {
    service_->setRecordingCalls(false);
    for (std::uint32_t i = 0; i < count; ++i) service_->addDevice(BenchDevice(kFirstDeviceID + i));
    previous_ = InstallAudioHardwareService(service_);
  }
  ~InstalledBenchService() { InstallAudioHardwareService(previous_); }
  InstalledBenchService(const InstalledBenchService&) = delete;
  InstalledBenchService& operator=(const InstalledBenchService&) = delete;

  SimulatedAudioHardwareService& service() const { return *service_; }

 private:
  std::shared_ptr<SimulatedAudioHardwareService> service_;
  std::shared_ptr<AudioHardwareService> previous_;
};

// (a) One change per iteration: an extra device appears and disappears in turn among `count`
// cached ones, and the observer re-reads the list, building or dropping that device.
void BM_AudioNoteConnectedDevicesDidChange(benchmark::State& state) {
  const auto count = static_cast<std::uint32_t>(state.range(0));
  InstalledBenchService installed(count);
  const ObjectID extraID = kFirstDeviceID + count;
  installed.service().addDevice(BenchDevice(extraID));
  std::vector<ObjectID> ids = installed.service().deviceList();
  std::vector<ObjectID> withExtra = ids;
  ids.pop_back();

  auto queue = DispatchQueue::createSerial("bench.backend");
  auto observer = AudioDeviceObserver::create(queue);
  queue->sync([] {});  // the initial fill
  std::size_t events = 0;
  observer->setDeviceEventHandler(
      [&events](MediaDeviceObserver&, MediaDeviceEvent, const MediaDevice&) { ++events; });

  bool extra = true;
  for (auto _ : state) {
    extra = !extra;
    installed.service().setDeviceList(extra ? withExtra : ids);
    observer->noteConnectedDevicesDidChange();
  }
  if (events != static_cast<std::size_t>(state.iterations())) state.SkipWithError("missed events");
  state.counters["devices"] = count;
  state.counters["ns_per_device"] =
      benchmark::Counter(static_cast<double>(count), benchmark::Counter::kIsIterationInvariantRate |
                                                         benchmark::Counter::kInvert);
  observer.reset();
  queue->sync([] {});
}
BENCHMARK(BM_AudioNoteConnectedDevicesDidChange)->Arg(8)->Arg(64)->Arg(1024);

constexpr PropertyAddress kRunningAddress{kAudioDevicePropertyDeviceIsRunningSomewhere,
                                          kAudioObjectPropertyScopeGlobal,
                                          kAudioObjectPropertyElementMaster};
constexpr PropertyAddress kNameAddress{kAudioObjectPropertyName, kAudioObjectPropertyScopeGlobal,
                                       kAudioObjectPropertyElementMaster};

// (b) The running state through the seam.
void BM_IsRunningThroughTheSeam(benchmark::State& state) {
  InstalledBenchService installed(8);
  for (auto _ : state) {
    benchmark::DoNotOptimize(AudioDeviceIsRunningForDeviceID(kFirstDeviceID));
  }
}
BENCHMARK(BM_IsRunningThroughTheSeam);

// Its baseline: the same read made on the simulated service itself.
void BM_IsRunningDirectServiceCall(benchmark::State& state) {
  InstalledBenchService installed(8);
  for (auto _ : state) {
    std::uint32_t value = 0;
    std::uint32_t size = sizeof value;
    benchmark::DoNotOptimize(installed.service().getPropertyData(kFirstDeviceID, kRunningAddress, 0,
                                                                 nullptr, &size, &value));
    benchmark::DoNotOptimize(value);
  }
}
BENCHMARK(BM_IsRunningDirectServiceCall);

// The name through the seam: the string reference is converted to text and released.
void BM_NameThroughTheSeam(benchmark::State& state) {
  InstalledBenchService installed(8);
  for (auto _ : state) {
    benchmark::DoNotOptimize(AudioDeviceNameForDeviceID(kFirstDeviceID));
  }
}
BENCHMARK(BM_NameThroughTheSeam);

// Its baseline: the direct read, releasing the reference it hands out.
void BM_NameDirectServiceCall(benchmark::State& state) {
  InstalledBenchService installed(8);
  for (auto _ : state) {
    PlatformStringRef name = nullptr;
    std::uint32_t size = sizeof name;
    benchmark::DoNotOptimize(installed.service().getPropertyData(kFirstDeviceID, kNameAddress, 0,
                                                                 nullptr, &size, &name));
    PlatformStringRelease(name);
  }
}
BENCHMARK(BM_NameDirectServiceCall);

}  // namespace
}  // namespace harkwell

BENCHMARK_MAIN();
