// The PulseAudio service's "running" cases, written once and run against every server that speaks
// the PulseAudio protocol: the real pulseaudio daemon and PipeWire's pipewire-pulse. A suite
// instantiates them with a server type that offers:
//   - kLabel: how the test names the server;
//   - start(): starts it with its test microphone, "" or why not;
//   - restart(): kills the daemon and starts it again, microphone included, "" or why not;
//   - address(): its libpulse server string;
//   - microphone(): the test microphone's source name;
//   - clientEnvironment(): the environment a client program needs;
//   - addBluetoothDevice(client, name): a device whose node says device.api=bluez5;
//   - addBarrierDevice(client, name): any new device, to order the service's events;
//   - output(): what the server's programs wrote.
//
// Included by one file per test program, which instantiates the cases.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "HarkwellFoundation/Platform/AudioHardwareConstants.h"
#include "HarkwellFoundation/Platform/Linux/PulseAudio/PulseAudioHardwareService.h"
#include "HarkwellFoundation/Platform/Linux/StableDeviceID.h"
#include "tests/support/AudioServiceReads.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/PulseTestClient.h"
#include "tests/support/Waiting.h"

namespace harkwell::running_cases {

using testing::ChildProcess;
using testing::DeviceIDs;
using testing::DeviceWithUID;
using testing::DrainQueue;
using testing::Global;
using testing::kDevices;
using testing::kRunning;
using testing::PropertyProbe;
using testing::PulseTestClient;
using testing::Recorder;
using testing::UInt32Property;

// The sink both servers start with.
inline constexpr const char* kNullSink = "harkwell_null_sink";

template <class Server>
class PulseRunningTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const std::string error = server_.start();
    ASSERT_EQ(error, "") << Server::kLabel << " did not start:\n" << server_.output();
    startService();
  }

  void startService() {
    PulseAudioHardwareService::Options options;
    options.server = server_.address();
    service_ = PulseAudioHardwareService::create(options);
    ASSERT_TRUE(service_);
    const auto microphone = DeviceWithUID(*service_, server_.microphone());
    ASSERT_TRUE(microphone) << "the service does not list " << server_.microphone();
    microphone_ = *microphone;
  }

  PulseTestClient& client() {
    if (!client_) client_ = std::make_unique<PulseTestClient>(server_.address());
    return *client_;
  }

  // Starts `parecord` on `source`, as a program that records would.
  std::string startParecord(ChildProcess& recorder, const std::string& source) {
    std::string error;
    recorder.start({"parecord", "--raw", "--device=" + source, "/dev/null"},
                   server_.clientEnvironment(), "/dev/null", &error);
    return error;
  }

  // Waits until `holds` is true of the server, re-asking at each of its source and recording
  // events (the service may show nothing that tells).
  bool waitForServer(const std::function<bool(PulseTestClient&)>& holds) {
    // The recorder outlives the watcher, whose thread appends to it until the watcher is gone.
    Recorder<int> events;
    PulseTestClient watcher(server_.address());
    if (!watcher.subscribe([&](unsigned, unsigned, std::uint32_t) { events.append(0); })) {
      return false;
    }
    for (;;) {
      const std::size_t seen = events.size();
      if (holds(client())) return true;
      if (!events.waitForCount(seen + 1)) return holds(client());
    }
  }

  // Waits until the server itself reports `source` in `state` ("RUNNING", "IDLE", ...).
  bool waitForServerState(const std::string& source, const std::string& state) {
    return waitForServer(
        [&](PulseTestClient& asked) { return asked.sourceState(source) == state; });
  }

  // Waits until `count` uncorked streams record from `source`.
  bool waitForRecordings(const std::string& source, std::size_t count) {
    return waitForServer(
        [&](PulseTestClient& asked) { return asked.recordingCount(source) == count; });
  }

  // Adds a device and waits until the service lists it, its notifications run: every change the
  // server reported before is applied and notified by then.
  void settle(const std::string& barrierName) {
    PropertyProbe list(*service_, kAudioObjectSystemObject, kDevices, queue_);
    ASSERT_EQ(list.add(), kNoErr);
    ASSERT_EQ(server_.addBarrierDevice(client(), barrierName), "") << server_.output();
    ASSERT_TRUE(list.calls().waitUntil(
        [&](const auto&) { return DeviceWithUID(*service_, barrierName).has_value(); }));
    DrainQueue(queue_);
  }

  std::uint32_t microphoneRunning() {
    return UInt32Property(*service_, microphone_, kRunning).value_or(99);
  }

  Server server_;
  std::shared_ptr<PulseAudioHardwareService> service_;
  ObjectID microphone_ = 0;
  std::unique_ptr<PulseTestClient> client_;
  std::shared_ptr<DispatchQueue> queue_ = DispatchQueue::createSerial("test.pulse-running");
};

TYPED_TEST_SUITE_P(PulseRunningTest);

TYPED_TEST_P(PulseRunningTest, TheMicrophoneHasTheIDOfItsUID) {
  EXPECT_EQ(this->microphone_,
            StableDeviceIDHome(StableIDSpace::Audio, this->server_.microphone()));
  EXPECT_EQ(this->microphoneRunning(), 0u);
}

TYPED_TEST_P(PulseRunningTest, ParecordMakesTheMicrophoneRunningAndStoppingMakesItIdle) {
  PropertyProbe running(*this->service_, this->microphone_, kRunning, this->queue_);
  ASSERT_EQ(running.add(), kNoErr);
  ChildProcess parecord;
  ASSERT_EQ(this->startParecord(parecord, this->server_.microphone()), "");
  ASSERT_TRUE(running.waitForValue({1})) << this->server_.output();
  parecord.stop(SIGTERM, std::chrono::seconds(5));
  ASSERT_TRUE(running.waitForValue({0}));
  EXPECT_EQ(this->microphoneRunning(), 0u);
}

TYPED_TEST_P(PulseRunningTest, TwoRecordersKeepTheMicrophoneRunningUntilTheLastStops) {
  PropertyProbe running(*this->service_, this->microphone_, kRunning, this->queue_);
  ASSERT_EQ(running.add(), kNoErr);
  ChildProcess first;
  ChildProcess second;
  ASSERT_EQ(this->startParecord(first, this->server_.microphone()), "");
  ASSERT_TRUE(running.waitForValue({1}));
  ASSERT_EQ(this->startParecord(second, this->server_.microphone()), "");
  // Nothing the service shows changes when the second one starts: ask the server.
  ASSERT_TRUE(this->waitForRecordings(this->server_.microphone(), 2));

  first.stop(SIGTERM, std::chrono::seconds(5));
  ASSERT_TRUE(this->waitForRecordings(this->server_.microphone(), 1));
  this->settle("barrier_one");
  EXPECT_EQ(this->microphoneRunning(), 1u) << "the second recorder still records";
  // Under load the server can pass through a state in between that queues one more call; what
  // matters is that no call ever read the microphone as idle while a recorder was left.
  for (const auto& entry : running.calls().entries()) {
    EXPECT_EQ(entry, (std::vector<std::uint32_t>{1}));
  }

  second.stop(SIGTERM, std::chrono::seconds(5));
  ASSERT_TRUE(running.waitForValue({0}));
}

TYPED_TEST_P(PulseRunningTest, ALevelMeterNeverMakesTheMicrophoneRunning) {
  PropertyProbe running(*this->service_, this->microphone_, kRunning, this->queue_);
  ASSERT_EQ(running.add(), kNoErr);
  auto meter = this->client().record(this->server_.microphone(), {.levelMeter = true});
  ASSERT_TRUE(meter);
  // The server itself runs the microphone for the meter.
  ASSERT_TRUE(this->waitForServerState(this->server_.microphone(), "RUNNING"));
  this->settle("barrier_meter");
  EXPECT_EQ(running.calls().size(), 0u);
  EXPECT_EQ(this->microphoneRunning(), 0u);

  // A real recording beside it counts.
  auto recording = this->client().record(this->server_.microphone());
  ASSERT_TRUE(recording);
  ASSERT_TRUE(running.waitForValue({1}));
  recording.reset();
  ASSERT_TRUE(running.waitForValue({0})) << "the meter alone is left";
}

TYPED_TEST_P(PulseRunningTest, ARemappedSourceMakesTheMicrophoneRunningOnlyWhileItIsRecorded) {
  PropertyProbe running(*this->service_, this->microphone_, kRunning, this->queue_);
  ASSERT_EQ(running.add(), kNoErr);
  ASSERT_TRUE(this->client().loadModule(
      "module-remap-source", "master=" + this->server_.microphone() + " source_name=remapped_mic"));
  this->settle("barrier_remap");
  const auto remapped = DeviceWithUID(*this->service_, "remapped_mic");
  ASSERT_TRUE(remapped);
  EXPECT_EQ(running.calls().size(), 0u) << "a filter that feeds nobody uses nothing";
  EXPECT_EQ(this->microphoneRunning(), 0u);

  // A meter on the filter's output is no use either.
  auto meter = this->client().record("remapped_mic", {.levelMeter = true});
  ASSERT_TRUE(meter);
  ASSERT_TRUE(this->waitForServerState("remapped_mic", "RUNNING"));
  this->settle("barrier_remap_meter");
  EXPECT_EQ(running.calls().size(), 0u);
  meter.reset();

  PropertyProbe remappedRunning(*this->service_, *remapped, kRunning, this->queue_);
  ASSERT_EQ(remappedRunning.add(), kNoErr);
  ChildProcess parecord;
  ASSERT_EQ(this->startParecord(parecord, "remapped_mic"), "");
  ASSERT_TRUE(running.waitForValue({1})) << this->server_.output();
  EXPECT_TRUE(remappedRunning.waitForValue({1}));
  parecord.stop(SIGTERM, std::chrono::seconds(5));
  ASSERT_TRUE(running.waitForValue({0}));
}

TYPED_TEST_P(PulseRunningTest, PlayingToTheSinkMakesItRunningUntilThePlayerStops) {
  const auto sink = DeviceWithUID(*this->service_, kNullSink);
  ASSERT_TRUE(sink);
  EXPECT_EQ(UInt32Property(*this->service_, *sink, kRunning), 0u);
  PropertyProbe running(*this->service_, *sink, kRunning, this->queue_);
  ASSERT_EQ(running.add(), kNoErr);
  ChildProcess player;
  std::string error;
  ASSERT_TRUE(player.start(
      {"pacat", "--playback", "--raw", std::string("--device=") + kNullSink, "/dev/zero"},
      this->server_.clientEnvironment(), "/dev/null", &error))
      << error;
  ASSERT_TRUE(running.waitForValue({1})) << this->server_.output();
  player.stop(SIGTERM, std::chrono::seconds(5));
  ASSERT_TRUE(running.waitForValue({0}));
}

TYPED_TEST_P(PulseRunningTest, ABluez5DeviceIsBluetooth) {
  ASSERT_EQ(this->server_.addBluetoothDevice(this->client(), "harkwell_bt_headset"), "")
      << this->server_.output();
  PropertyProbe list(*this->service_, kAudioObjectSystemObject, kDevices, this->queue_);
  ASSERT_EQ(list.add(), kNoErr);
  std::optional<ObjectID> headset = DeviceWithUID(*this->service_, "harkwell_bt_headset");
  if (!headset) {
    ASSERT_TRUE(list.calls().waitUntil([&](const auto&) {
      return DeviceWithUID(*this->service_, "harkwell_bt_headset").has_value();
    }));
    headset = DeviceWithUID(*this->service_, "harkwell_bt_headset");
  }
  EXPECT_EQ(UInt32Property(*this->service_, *headset, Global(kAudioDevicePropertyTransportType)),
            kAudioDeviceTransportTypeBluetooth);
}

TYPED_TEST_P(PulseRunningTest, ARestartedServerBringsTheDevicesBackWithTheirIDs) {
  const std::vector<ObjectID> before = DeviceIDs(*this->service_);
  PropertyProbe list(*this->service_, kAudioObjectSystemObject, kDevices, this->queue_);
  ASSERT_EQ(list.add(), kNoErr);
  ASSERT_EQ(this->server_.restart(), "") << this->server_.output();
  ASSERT_TRUE(list.calls().waitUntil([&](const auto& values) {
    return !values.empty() &&
           values.back() == std::vector<std::uint32_t>(before.begin(), before.end());
  })) << "the devices come back under the IDs they had";
  bool wentAway = false;
  for (const auto& value : list.calls().entries()) wentAway = wentAway || value.empty();
  EXPECT_TRUE(wentAway) << "every device left while the server was gone";

  // Another process (a new service) gives them the same IDs.
  auto other = PulseAudioHardwareService::create({.server = this->server_.address()});
  ASSERT_TRUE(other);
  EXPECT_EQ(DeviceIDs(*other), before);
}

REGISTER_TYPED_TEST_SUITE_P(PulseRunningTest, TheMicrophoneHasTheIDOfItsUID,
                            ParecordMakesTheMicrophoneRunningAndStoppingMakesItIdle,
                            TwoRecordersKeepTheMicrophoneRunningUntilTheLastStops,
                            ALevelMeterNeverMakesTheMicrophoneRunning,
                            ARemappedSourceMakesTheMicrophoneRunningOnlyWhileItIsRecorded,
                            PlayingToTheSinkMakesItRunningUntilThePlayerStops,
                            ABluez5DeviceIsBluetooth,
                            ARestartedServerBringsTheDevicesBackWithTheirIDs);

}  // namespace harkwell::running_cases
