// The observer base under load: one device-list change with N cached devices (the cost per device
// must stay flat as N grows), and the delivery of one running-state event from the queue to the
// client beside a bare two-thread hand-off (the floor of any delivery that crosses threads), which
// in turn stands beside a bare std::function call.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <vector>

#include "HarkwellFoundation/Observer/MediaDeviceObserver.h"
#include "bench/ThreadHandOff.h"

namespace harkwell {
namespace {

// Answers every query at once from a list of IDs, so only the base's own work is measured.
class ListObserver final : public MediaDeviceObserver {
 public:
  // The IDs are in place before the initial cache fill is queued: set later, they would race with
  // the fill and could leave the cache empty.
  static std::shared_ptr<ListObserver> create(std::shared_ptr<DispatchQueue> queue,
                                              std::vector<std::uint32_t> ids) {
    auto* observer = new ListObserver(std::move(queue));
    observer->ids_ = std::move(ids);
    return adopt(observer);
  }
  void setIDs(std::vector<std::uint32_t> ids) {
    std::lock_guard lock(mutex_);
    ids_ = std::move(ids);
  }

  MediaType mediaType() const override { return MediaType::Audio; }
  std::vector<std::uint32_t> connectedDeviceIDs() const override {
    std::lock_guard lock(mutex_);
    return ids_;
  }
  std::optional<std::string> deviceNameForDeviceID(std::uint32_t) const override { return "d"; }
  std::optional<std::string> deviceInputSourceNameForDeviceID(std::uint32_t) const override {
    return std::nullopt;
  }
  std::optional<std::string> deviceUIDForDeviceID(std::uint32_t) const override { return "u"; }
  std::optional<MediaDeviceChannelCounts> deviceChannelCountsForDeviceID(
      std::uint32_t) const override {
    return MediaDeviceChannelCounts{1, 0};
  }
  std::optional<bool> deviceIsRunningForDeviceID(std::uint32_t) const override { return true; }
  std::optional<std::string> deviceModelUIDForDeviceID(std::uint32_t) const override {
    return std::nullopt;
  }
  MediaDeviceTransportType deviceTransportTypeForDeviceID(std::uint32_t) const override {
    return MediaDeviceTransportType::USB;
  }
  void startObservingConnectedDevices() override {}
  void stopObservingConnectedDevices() override {}
  void startObservingPropertiesForDeviceID(std::uint32_t) override {}
  void stopObservingPropertiesForDeviceID(std::uint32_t) override {}
  void stopObservingPropertiesForAllDevices() override {}

 private:
  using MediaDeviceObserver::MediaDeviceObserver;
  mutable std::mutex mutex_;
  std::vector<std::uint32_t> ids_;
};

// One change per iteration: device N+1 comes and goes alternately among N cached devices.
void BM_NoteConnectedDevicesDidChange(benchmark::State& state) {
  const auto count = static_cast<std::uint32_t>(state.range(0));
  auto queue = DispatchQueue::createSerial("bench");
  std::vector<std::uint32_t> ids(count);
  for (std::uint32_t i = 0; i < count; ++i) ids[i] = i + 2;
  std::vector<std::uint32_t> withExtra = ids;
  withExtra.push_back(count + 2);
  auto observer = ListObserver::create(queue, ids);
  queue->sync([] {});  // the initial fill
  std::size_t events = 0;
  observer->setDeviceEventHandler(
      [&](MediaDeviceObserver&, MediaDeviceEvent, const MediaDevice&) { ++events; });
  bool extra = false;
  // The notes run on this thread: the queue's hop is measured separately below.
  for (auto _ : state) {
    extra = !extra;
    observer->setIDs(extra ? withExtra : ids);
    observer->noteConnectedDevicesDidChange();
  }
  benchmark::DoNotOptimize(events);
  state.counters["ns_per_device"] =
      benchmark::Counter(static_cast<double>(count), benchmark::Counter::kIsIterationInvariantRate |
                                                         benchmark::Counter::kInvert);
}
BENCHMARK(BM_NoteConnectedDevicesDidChange)->Arg(8)->Arg(64)->Arg(1024)->Arg(16384);

// From submitting a running-state note to the queue until the client's callback ran.
void BM_RunningEventDelivery(benchmark::State& state) {
  auto queue = DispatchQueue::createSerial("bench-events");
  auto observer = ListObserver::create(queue, {2});
  queue->sync([] {});
  std::mutex mutex;
  std::condition_variable delivered;
  std::chrono::steady_clock::time_point deliveredAt;
  bool done = false;
  observer->setDeviceEventHandler([&](MediaDeviceObserver&, MediaDeviceEvent, const MediaDevice&) {
    std::lock_guard lock(mutex);
    deliveredAt = std::chrono::steady_clock::now();
    done = true;
    delivered.notify_one();
  });
  std::vector<double> latencies;
  for (auto _ : state) {
    const auto start = std::chrono::steady_clock::now();
    queue->async([&] { observer->noteIsRunningChangedForDeviceID(2); });
    std::unique_lock lock(mutex);
    delivered.wait(lock, [&] { return done; });
    done = false;
    latencies.push_back(std::chrono::duration<double, std::micro>(deliveredAt - start).count());
  }
  std::sort(latencies.begin(), latencies.end());
  if (!latencies.empty()) {
    state.counters["median_us"] = latencies[latencies.size() / 2];
    state.counters["p99_us"] = latencies[latencies.size() * 99 / 100];
  }
  state.counters["events_per_s"] =
      benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_RunningEventDelivery)->UseRealTime();

// The baseline of the delivery above: the same round trip between two threads with nothing else.
using bench::BM_ThreadHandOffRoundTrip;
BENCHMARK(BM_ThreadHandOffRoundTrip)->UseRealTime();

// The baseline of the hand-off: calling a client callback directly.
void BM_BareFunctionCall(benchmark::State& state) {
  MediaDevice device;
  std::size_t calls = 0;
  std::function<void(MediaDeviceEvent, const MediaDevice&)> callback =
      [&](MediaDeviceEvent, const MediaDevice&) { ++calls; };
  benchmark::DoNotOptimize(callback);
  for (auto _ : state) {
    callback(MediaDeviceEvent::ChangedRunning, device);
    benchmark::ClobberMemory();
  }
  benchmark::DoNotOptimize(calls);
}
BENCHMARK(BM_BareFunctionCall);

}  // namespace
}  // namespace harkwell

BENCHMARK_MAIN();
