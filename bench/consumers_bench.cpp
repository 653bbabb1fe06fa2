// Who uses a device, against a private pulseaudio daemon: from a recording stream starting to the
// PulseAudio service's consumers listener reading a list that names the recorder's process and
// application, over 60 starts, beside two floors measured by a bare libpulse client on the same
// starts: the server's own event for the new stream (what `pactl subscribe` prints), and that
// event followed by reading the new stream's record, which is the least any client must do to
// learn the recorder's process ID and name (the event carries only the stream's index). The
// ratios of each start's latencies are the figures to watch (goal: under 1.1 at the median).
#include <benchmark/benchmark.h>
#include <pulse/pulseaudio.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <vector>

#include "HarkwellFoundation/Consumers/MediaDeviceConsumers.h"
#include "HarkwellFoundation/Platform/AudioHardwareConstants.h"
#include "HarkwellFoundation/Platform/Linux/PulseAudio/PulseAudioHardwareService.h"
#include "HarkwellFoundation/Platform/Linux/StableDeviceID.h"
#include "HarkwellFoundation/Platform/ListenerBlock.h"
#include "bench/BarePulseSubscriber.h"
#include "bench/LatencyStatistics.h"
#include "tests/support/PrivatePulseServer.h"
#include "tests/support/PulseTestClient.h"
#include "tests/support/Waiting.h"

namespace harkwell {
namespace {

using bench::Clock;
using bench::Median;
using bench::MicrosecondsBetween;
using testing::PrivatePulseServer;
using testing::PulseTestClient;
using testing::Recorder;

constexpr int kStarts = 60;

void BM_RecordingStartToConsumerKnown(benchmark::State& state) {
  if (!PrivatePulseServer::isInstalled()) {
    state.SkipWithError("pulseaudio is not installed (Debian package pulseaudio)");
    return;
  }
  // Declared before what calls them, so they outlive the callbacks.
  Recorder<Clock::time_point> known;         // the listener read a list naming this process
  Recorder<bool> emptied;                    // the listener read an empty list
  Recorder<Clock::time_point> serverEvents;  // the server's event for a new recording stream
  Recorder<Clock::time_point> streamRead;    // the bare client read the new stream's claims
  PrivatePulseServer server;
  if (const std::string error = server.start(); !error.empty()) {
    state.SkipWithError(error.c_str());
    return;
  }
  PulseAudioHardwareService::Options options;
  options.server = server.address();
  auto service = PulseAudioHardwareService::create(options);
  const std::string sourceName = PrivatePulseServer::kNullSourceName;
  const ObjectID sourceID = StableDeviceIDHome(StableIDSpace::Audio, sourceName);
  const PropertyAddress address{kAudioDevicePropertyConsumers, kAudioObjectPropertyScopeGlobal,
                                kAudioObjectPropertyElementMaster};
  auto queue = DispatchQueue::createSerial("bench.consumers.listener");
  auto listener =
      std::make_shared<const PropertyListener>([&](std::uint32_t, const PropertyAddress*) {
        const auto consumers =
            ReadDeviceConsumers(*service, sourceID).value_or(std::vector<MediaDeviceConsumer>{});
        const bool named =
            std::any_of(consumers.begin(), consumers.end(), [](const auto& consumer) {
              return consumer.processID == getpid() && consumer.applicationName.has_value();
            });
        if (named) known.append(Clock::now());
        if (consumers.empty()) emptied.append(true);
      });
  if (!service || service->addPropertyListenerBlock(
                      sourceID, address, queue, PlatformListenerBlock::copy(listener)) != kNoErr) {
    state.SkipWithError("cannot listen to the source's consumers");
    return;
  }
  PulseTestClient recorder(server.address());
  bench::BarePulseSubscriber floor(
      server.address(), PA_SUBSCRIPTION_MASK_SOURCE_OUTPUT,
      [&](pa_context* context, unsigned facility, unsigned type, std::uint32_t index) {
        if (facility != PA_SUBSCRIPTION_EVENT_SOURCE_OUTPUT || type != PA_SUBSCRIPTION_EVENT_NEW) {
          return;
        }
        serverEvents.append(Clock::now());
        pa_operation* reading = pa_context_get_source_output_info(
            context, index,
            [](pa_context*, const pa_source_output_info* info, int, void* heard) {
              if (info && pa_proplist_gets(info->proplist, PA_PROP_APPLICATION_PROCESS_ID) &&
                  pa_proplist_gets(info->proplist, PA_PROP_APPLICATION_NAME)) {
                static_cast<Recorder<Clock::time_point>*>(heard)->append(Clock::now());
              }
            },
            &streamRead);
        if (reading) pa_operation_unref(reading);
      });
  if (!recorder.isConnected() || !floor.isReady()) {
    state.SkipWithError("the test clients could not connect");
    return;
  }

  std::vector<double> consumerLatencies;
  std::vector<double> serverLatencies;
  std::vector<double> streamReadLatencies;
  std::vector<double> ratios;
  std::vector<double> readRatios;
  for (auto _ : state) {
    for (int start = 0; start < kStarts; ++start) {
      known.clear();
      emptied.clear();
      serverEvents.clear();
      streamRead.clear();
      const Clock::time_point started = Clock::now();
      auto recording = recorder.record(sourceName);
      if (!recording || !known.waitForCount(1) || !serverEvents.waitForCount(1) ||
          !streamRead.waitForCount(1)) {
        state.SkipWithError("a start was missed");
        break;
      }
      const double consumer = MicrosecondsBetween(started, known.entries()[0]);
      const double event = MicrosecondsBetween(started, serverEvents.entries()[0]);
      consumerLatencies.push_back(consumer);
      serverLatencies.push_back(event);
      const double read = MicrosecondsBetween(started, streamRead.entries()[0]);
      streamReadLatencies.push_back(read);
      if (event > 0) ratios.push_back(consumer / event);
      if (read > 0) readRatios.push_back(consumer / read);
      recording.reset();
      if (!emptied.waitForCount(1)) {
        state.SkipWithError("a stop was missed");
        break;
      }
    }
  }
  service->removePropertyListenerBlock(sourceID, address, queue,
                                       PlatformListenerBlock::copy(listener));
  testing::DrainQueue(queue);
  state.counters["starts"] = static_cast<double>(consumerLatencies.size());
  state.counters["consumer_known_median_us"] = Median(consumerLatencies);
  state.counters["server_event_median_us"] = Median(serverLatencies);
  state.counters["stream_read_median_us"] = Median(streamReadLatencies);
  state.counters["consumer_over_server_event_paired_median"] = Median(ratios);
  state.counters["consumer_over_stream_read_paired_median"] = Median(readRatios);
}
BENCHMARK(BM_RecordingStartToConsumerKnown)
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

}  // namespace
}  // namespace harkwell

BENCHMARK_MAIN();
