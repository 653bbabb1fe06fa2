// The PipeWire service against a private PipeWire stack:
//  (a) latency from starting `pw-record` on a virtual microphone to the client's ChangedRunning,
//      over 100 starts, beside two baselines measured on the same starts by a bare libpipewire
//      client that follows the graph the way `pw-mon` does (registry, every node and link bound):
//        - the daemon's own event: the microphone node's info saying it runs;
//        - the floor: the moment that bare client's copy of the graph first shows what "running"
//          needs (a link from the microphone into a node that runs), the least any client must
//          receive and read to tell a real consumer from a meter;
//      median and 99th percentile (bench_table puts them side by side); and on the same starts,
//      the moment the service's consumers listener first reads a list naming the recorder's
//      process (its verified PID) and application;
//  (b) the CPU and the wake-ups (voluntary context switches) of an observing controller over 10 s
//      while nothing changes, beside the same process over 10 s without it.
#include <benchmark/benchmark.h>
#include <pipewire/pipewire.h>
#include <signal.h>
#include <sys/resource.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstring>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <thread>
#include <vector>

#include "HarkwellFoundation/Consumers/MediaDeviceConsumers.h"
#include "HarkwellFoundation/Controller/MediaDeviceController.h"
#include "HarkwellFoundation/Platform/AudioHardwareConstants.h"
#include "HarkwellFoundation/Platform/Linux/PipeWire/PipeWireHardwareService.h"
#include "HarkwellFoundation/Platform/Linux/StableDeviceID.h"
#include "HarkwellFoundation/Platform/Simulated/SimulatedHardwareServices.h"
#include "bench/LatencyStatistics.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/PrivatePipeWireStack.h"
#include "tests/support/ScopedHardwareServices.h"
#include "tests/support/Waiting.h"

// libpipewire's method calls are C macros with C casts.
#pragma GCC diagnostic ignored "-Wold-style-cast"

namespace harkwell {
namespace {

using bench::Clock;
using bench::Median;
using bench::MicrosecondsBetween;
using bench::Percentile;
using testing::ChildProcess;
using testing::PrivatePipeWireStack;
using testing::Recorder;

constexpr int kStarts = 100;
constexpr const char* kMicrophone = "harkwell_bench_mic";

// A bare client on its own libpipewire thread loop that follows every node and link and notes
// when the microphone starts and stops running, both as the daemon says it (the node's info) and
// as a client judging consumers must see it (a link from the microphone into a running node).
class BareGraphFollower {
 public:
  struct Moment {
    bool running = false;
    Clock::time_point at;
  };

  explicit BareGraphFollower(const std::string& remote) {
    pw_init(nullptr, nullptr);
    loop_ = pw_thread_loop_new("bench-bare", nullptr);
    context_ = pw_context_new(pw_thread_loop_get_loop(loop_), nullptr, 0);
    pw_thread_loop_lock(loop_);
    core_ = pw_context_connect(context_,
                               pw_properties_new(PW_KEY_REMOTE_NAME, remote.c_str(), nullptr), 0);
    if (core_) {
      static const pw_registry_events events = [] {
        pw_registry_events e{};
        e.version = PW_VERSION_REGISTRY_EVENTS;
        e.global = [](void* data, std::uint32_t id, std::uint32_t, const char* type, std::uint32_t,
                      const spa_dict* props) {
          static_cast<BareGraphFollower*>(data)->added(id, type, props);
        };
        e.global_remove = [](void* data, std::uint32_t id) {
          static_cast<BareGraphFollower*>(data)->removed(id);
        };
        return e;
      }();
      registry_ = pw_core_get_registry(core_, PW_VERSION_REGISTRY, 0);
      pw_registry_add_listener(registry_, &registryListener_, &events, this);
    }
    pw_thread_loop_unlock(loop_);
    pw_thread_loop_start(loop_);
  }

  ~BareGraphFollower() {
    pw_thread_loop_lock(loop_);
    for (Bound& bound : bound_) {
      spa_hook_remove(&bound.listener);
      pw_proxy_destroy(bound.proxy);
    }
    if (registry_) {
      spa_hook_remove(&registryListener_);
      pw_proxy_destroy(reinterpret_cast<pw_proxy*>(registry_));
    }
    if (core_) pw_core_disconnect(core_);
    pw_thread_loop_unlock(loop_);
    pw_thread_loop_stop(loop_);
    pw_context_destroy(context_);
    pw_thread_loop_destroy(loop_);
  }

  bool connected() const { return core_ != nullptr; }
  Recorder<Moment>& daemonEvents() { return daemonEvents_; }
  Recorder<Moment>& floorMoments() { return floorMoments_; }

 private:
  struct Bound {
    BareGraphFollower* owner = nullptr;
    std::uint32_t id = 0;
    pw_proxy* proxy = nullptr;
    spa_hook listener{};
  };
  struct Link {
    std::uint32_t from = 0;
    std::uint32_t to = 0;
  };

  void added(std::uint32_t id, const char* type, const spa_dict* props) {
    const bool node = std::strcmp(type, PW_TYPE_INTERFACE_Node) == 0;
    const bool link = std::strcmp(type, PW_TYPE_INTERFACE_Link) == 0;
    if (!node && !link) return;
    if (node) {
      const char* name = spa_dict_lookup(props, PW_KEY_NODE_NAME);
      if (name && std::strcmp(name, kMicrophone) == 0) microphone_ = id;
    }
    auto* proxy = static_cast<pw_proxy*>(
        pw_registry_bind(registry_, id, type, node ? PW_VERSION_NODE : PW_VERSION_LINK, 0));
    Bound& bound = bound_.emplace_back();
    bound.owner = this;
    bound.id = id;
    bound.proxy = proxy;
    if (node) {
      static const pw_node_events events = [] {
        pw_node_events e{};
        e.version = PW_VERSION_NODE_EVENTS;
        e.info = [](void* data, const pw_node_info* info) {
          auto* watched = static_cast<Bound*>(data);
          watched->owner->nodeInfo(watched->id, info->state == PW_NODE_STATE_RUNNING);
        };
        return e;
      }();
      pw_node_add_listener(reinterpret_cast<pw_node*>(proxy), &bound.listener, &events, &bound);
    } else {
      static const pw_link_events events = [] {
        pw_link_events e{};
        e.version = PW_VERSION_LINK_EVENTS;
        e.info = [](void* data, const pw_link_info* info) {
          auto* followed = static_cast<Bound*>(data);
          followed->owner->links_[followed->id] = {info->output_node_id, info->input_node_id};
          followed->owner->judge();
        };
        return e;
      }();
      pw_link_add_listener(reinterpret_cast<pw_link*>(proxy), &bound.listener, &events, &bound);
    }
  }

  void removed(std::uint32_t id) {
    links_.erase(id);
    running_.erase(id);
    for (auto it = bound_.begin(); it != bound_.end(); ++it) {
      if (it->id != id) continue;
      spa_hook_remove(&it->listener);
      pw_proxy_destroy(it->proxy);
      bound_.erase(it);
      break;
    }
    judge();
  }

  void nodeInfo(std::uint32_t id, bool running) {
    const Clock::time_point now = Clock::now();
    const bool was = running_[id];
    running_[id] = running;
    if (id == microphone_ && was != running) daemonEvents_.append({running, now});
    judge();
  }

  // Whether the graph shows a running node fed by the microphone, noted when that changes.
  void judge() {
    bool consumed = false;
    for (const auto& [id, link] : links_) {
      if (link.from == microphone_ && running_[link.to]) consumed = true;
    }
    if (consumed != consumed_) {
      consumed_ = consumed;
      floorMoments_.append({consumed, Clock::now()});
    }
  }

  pw_thread_loop* loop_ = nullptr;
  pw_context* context_ = nullptr;
  pw_core* core_ = nullptr;
  pw_registry* registry_ = nullptr;
  spa_hook registryListener_{};
  std::list<Bound> bound_;
  // Loop thread only:
  std::uint32_t microphone_ = 0;
  std::map<std::uint32_t, Link> links_;
  std::map<std::uint32_t, bool> running_;
  bool consumed_ = false;
  Recorder<Moment> daemonEvents_;
  Recorder<Moment> floorMoments_;
};

// A private stack with a virtual microphone, the PipeWire service installed process-wide (with
// no cameras), and a controller observing on its own queue, for one benchmark.
class ObservedStack {
 public:
  ObservedStack() {
    if (std::string error = stack_.start(); !error.empty()) {
      error_ = error;
      return;
    }
    if (std::string error = stack_.createVirtualMicrophone(kMicrophone, "Bench Microphone");
        !error.empty()) {
      error_ = error;
      return;
    }
    PipeWireHardwareService::Options options;
    options.remote = stack_.remote();
    auto service = PipeWireHardwareService::create(options);
    if (!service) {
      error_ = "the PipeWire service did not start";
      return;
    }
    services_.install(service, SimulatedVideoHardwareService::create());
    service_ = service;
  }
  ~ObservedStack() {
    stopObserving();
    services_.restore();
  }
  ObservedStack(const ObservedStack&) = delete;
  ObservedStack& operator=(const ObservedStack&) = delete;

  const std::string& error() const { return error_; }
  PrivatePipeWireStack& stack() { return stack_; }
  PipeWireHardwareService& service() { return *service_; }

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
  void stopObserving() {
    if (!controller_) return;
    controller_->setDeviceEventHandler(nullptr);
    controller_->setUpdatingDevicesHandler(nullptr);
    controller_->setObserveDevices(false);
    testing::DrainQueue(queue_);
    controller_.reset();
  }

 private:
  PrivatePipeWireStack stack_;
  std::string error_;
  testing::ScopedHardwareServices services_;
  std::shared_ptr<DispatchQueue> queue_ = DispatchQueue::createSerial("bench.pipewire");
  std::shared_ptr<MediaDeviceController> controller_;
  std::shared_ptr<PipeWireHardwareService> service_;
};

// Waits until `moments` has an entry saying `running`, and gives its time.
std::optional<Clock::time_point> WhenBecame(Recorder<BareGraphFollower::Moment>& moments,
                                            bool running) {
  std::optional<Clock::time_point> at;
  moments.waitUntil([&](const auto& entries) {
    for (const auto& moment : entries) {
      if (moment.running == running) {
        at = moment.at;
        return true;
      }
    }
    return false;
  });
  return at;
}

// (a)
void BM_RecorderStartToChangedRunning(benchmark::State& state) {
  if (const std::string missing = PrivatePipeWireStack::missingPrograms(); !missing.empty()) {
    state.SkipWithError(("not installed: " + missing).c_str());
    return;
  }
  // What the handlers record is declared before what calls them, so it outlives them.
  Recorder<std::pair<bool, Clock::time_point>> clientHeard;
  ObservedStack observed;
  if (!observed.error().empty()) {
    state.SkipWithError(observed.error().c_str());
    return;
  }
  observed.observe([&](MediaDeviceEvent event, const MediaDevice& device) {
    if (event == MediaDeviceEvent::ChangedRunning && device.deviceUID == kMicrophone) {
      clientHeard.append({device.isRunning, Clock::now()});
    }
  });
  BareGraphFollower bare(observed.stack().remote());
  if (!bare.connected()) {
    state.SkipWithError("the bare client could not connect");
    return;
  }
  // The service's own consumers listener on the microphone, on a queue of its own: when it first
  // reads a list that names the running recorder's process and application.
  std::atomic<pid_t> recorderID{-1};
  Recorder<Clock::time_point> consumerKnown;
  const ObjectID microphoneID = StableDeviceIDHome(StableIDSpace::Audio, kMicrophone);
  const PropertyAddress consumersAddress{kAudioDevicePropertyConsumers,
                                         kAudioObjectPropertyScopeGlobal,
                                         kAudioObjectPropertyElementMaster};
  auto listenerQueue = DispatchQueue::createSerial("bench.pipewire.consumers");
  auto consumersListener =
      std::make_shared<const PropertyListener>([&](std::uint32_t, const PropertyAddress*) {
        const auto consumers = ReadDeviceConsumers(observed.service(), microphoneID)
                                   .value_or(std::vector<MediaDeviceConsumer>{});
        const pid_t expected = recorderID.load();
        const bool named =
            std::any_of(consumers.begin(), consumers.end(), [&](const MediaDeviceConsumer& c) {
              return c.processID == expected && c.isProcessIDVerified && c.applicationName;
            });
        if (named) consumerKnown.append(Clock::now());
      });
  if (observed.service().addPropertyListenerBlock(microphoneID, consumersAddress, listenerQueue,
                                                  PlatformListenerBlock::copy(consumersListener)) !=
      kNoErr) {
    state.SkipWithError("cannot listen to the microphone's consumers");
    return;
  }

  std::vector<double> clientLatencies;
  std::vector<double> eventLatencies;
  std::vector<double> floorLatencies;
  std::vector<double> consumerLatencies;
  std::vector<double> consumerRatios;
  for (auto _ : state) {
    for (int start = 0; start < kStarts; ++start) {
      clientHeard.clear();
      bare.daemonEvents().clear();
      bare.floorMoments().clear();
      consumerKnown.clear();
      ChildProcess recorder;
      const Clock::time_point started = Clock::now();
      const std::string error = observed.stack().startRecorder(recorder, kMicrophone);
      recorderID = recorder.pid();
      if (!error.empty() || !clientHeard.waitForCount(1) || !consumerKnown.waitForCount(1)) {
        state.SkipWithError("a start was not reported");
        return;
      }
      const auto event = WhenBecame(bare.daemonEvents(), true);
      const auto floor = WhenBecame(bare.floorMoments(), true);
      if (!event || !floor) {
        state.SkipWithError("the bare client missed a start");
        return;
      }
      clientLatencies.push_back(MicrosecondsBetween(started, clientHeard.entries()[0].second));
      eventLatencies.push_back(MicrosecondsBetween(started, *event));
      floorLatencies.push_back(MicrosecondsBetween(started, *floor));
      const double known = MicrosecondsBetween(started, consumerKnown.entries()[0]);
      consumerLatencies.push_back(known);
      if (eventLatencies.back() > 0) consumerRatios.push_back(known / eventLatencies.back());
      // Stop, and wait until both have seen the microphone go idle before the next start.
      recorder.stop(SIGTERM, std::chrono::seconds(5));
      if (!clientHeard.waitForCount(2) || !WhenBecame(bare.daemonEvents(), false) ||
          !WhenBecame(bare.floorMoments(), false)) {
        state.SkipWithError("a stop was not reported");
        return;
      }
    }
  }

  observed.service().removePropertyListenerBlock(microphoneID, consumersAddress, listenerQueue,
                                                 PlatformListenerBlock::copy(consumersListener));
  testing::DrainQueue(listenerQueue);
  observed.stopObserving();
  state.counters["consumer_known_median_us"] = Median(consumerLatencies);
  state.counters["consumer_over_daemon_event_paired_median"] = Median(consumerRatios);
  state.counters["starts"] = static_cast<double>(clientLatencies.size());
  state.counters["client_median_us"] = Median(clientLatencies);
  state.counters["client_p99_us"] = Percentile(clientLatencies, 0.99);
  state.counters["daemon_event_median_us"] = Median(eventLatencies);
  state.counters["daemon_event_p99_us"] = Percentile(eventLatencies, 0.99);
  state.counters["floor_median_us"] = Median(floorLatencies);
  state.counters["floor_p99_us"] = Percentile(floorLatencies, 0.99);
}
BENCHMARK(BM_RecorderStartToChangedRunning)
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

struct Usage {
  double cpuSeconds = 0;
  double wakeUps = 0;
};

Usage ProcessUsage() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  auto seconds = [](const timeval& value) {
    return static_cast<double>(value.tv_sec) + static_cast<double>(value.tv_usec) / 1e6;
  };
  return {seconds(usage.ru_utime) + seconds(usage.ru_stime), static_cast<double>(usage.ru_nvcsw)};
}

// (b) `with_controller` 1: a controller observes the stack's devices; 0: the baseline, the same
// process and stack without the service or the controller.
void BM_IdleCPU(benchmark::State& state) {
  if (const std::string missing = PrivatePipeWireStack::missingPrograms(); !missing.empty()) {
    state.SkipWithError(("not installed: " + missing).c_str());
    return;
  }
  constexpr std::chrono::seconds kWall{10};
  const bool withController = state.range(0) != 0;
  std::optional<ObservedStack> observed;
  PrivatePipeWireStack bareStack;
  if (withController) {
    observed.emplace();
    if (!observed->error().empty()) {
      state.SkipWithError(observed->error().c_str());
      return;
    }
    observed->observe([](MediaDeviceEvent, const MediaDevice&) {});
  } else if (const std::string error = bareStack.start(); !error.empty()) {
    state.SkipWithError(error.c_str());
    return;
  }
  Usage used;
  for (auto _ : state) {
    const Usage before = ProcessUsage();
    // The measurement is of doing nothing for this long; there is no event to wait for.
    std::this_thread::sleep_for(kWall);
    const Usage after = ProcessUsage();
    used = {after.cpuSeconds - before.cpuSeconds, after.wakeUps - before.wakeUps};
  }
  state.counters["cpu_ms"] = used.cpuSeconds * 1000;
  state.counters["cpu_percent_of_one_core"] =
      100 * used.cpuSeconds / static_cast<double>(kWall.count());
  // The sleeping thread itself wakes once; the rest are the library's threads.
  state.counters["wake_ups"] = used.wakeUps;
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
