// The PulseAudio service's "running" cases, written once and run against every server that speaks
// the PulseAudio protocol: the real pulseaudio daemon and PipeWire's pipewire-pulse. A suite
// instantiates them with a server type that offers:
//
//   static const char* kLabel                      how the test names it
//   std::string start()                            starts it with its test microphone; "" or why
//   not std::string restart()                          kills the daemon and starts it again,
//   microphone
//                                                  included; "" or why not
//   std::string address() const                    its libpulse server string
//   std::string microphone() const                 the test microphone's source name
//   std::map<...> clientEnvironment() const        the environment a client program needs
//   std::string addBluetoothDevice(client, name)   a device whose node says device.api=bluez5
//   std::string addBarrierDevice(client, name)     any new device, to order the service's events
//   std::string output() const                     what the server's programs wrote
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
#include "HarkwellFoundation/Platform/PlatformString.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/PulseTestClient.h"
#include "tests/support/Waiting.h"

namespace harkwell::running_cases {

using testing::ChildProcess;
using testing::DrainQueue;
using testing::PulseTestClient;
using testing::Recorder;

inline PropertyAddress Global(std::uint32_t selector) {
  return {selector, kAudioObjectPropertyScopeGlobal, kAudioObjectPropertyElementMaster};
}

inline const PropertyAddress kDevices = Global(kAudioHardwarePropertyDevices);
inline const PropertyAddress kRunning = Global(kAudioDevicePropertyDeviceIsRunningSomewhere);

// The sink both servers start with.
inline constexpr const char* kNullSink = "harkwell_null_sink";

inline std::vector<ObjectID> DeviceIDs(AudioHardwareService& service) {
  std::uint32_t size = 0;
  if (service.getPropertyDataSize(kAudioObjectSystemObject, kDevices, 0, nullptr, &size) !=
      kNoErr) {
    return {};
  }
  std::vector<ObjectID> ids(size / 4);
  if (service.getPropertyData(kAudioObjectSystemObject, kDevices, 0, nullptr, &size, ids.data()) !=
      kNoErr) {
    return {};
  }
  ids.resize(size / 4);
  return ids;
}

inline std::optional<std::string> UID(AudioHardwareService& service, ObjectID device) {
  OwnedPlatformString string;
  std::uint32_t size = sizeof(PlatformStringRef);
  if (service.getPropertyData(device, Global(kAudioDevicePropertyDeviceUID), 0, nullptr, &size,
                              string.slot()) != kNoErr ||
      !string.get()) {
    return std::nullopt;
  }
  return PlatformStringText(string.get());
}

inline std::optional<ObjectID> DeviceWithUID(AudioHardwareService& service,
                                             const std::string& uid) {
  for (ObjectID id : DeviceIDs(service)) {
    if (UID(service, id) == uid) return id;
  }
  return std::nullopt;
}

inline std::optional<std::uint32_t> UInt32Property(AudioHardwareService& service, ObjectID device,
                                                   const PropertyAddress& address) {
  std::uint32_t value = 0;
  std::uint32_t size = sizeof value;
  if (service.getPropertyData(device, address, 0, nullptr, &size, &value) != kNoErr) {
    return std::nullopt;
  }
  return value;
}

// A listener on one 4-byte property (or the device list) that records what each call reads.
class ValueProbe {
 public:
  ValueProbe(AudioHardwareService& service, ObjectID object, PropertyAddress address,
             std::shared_ptr<DispatchQueue> queue)
      : service_(service), object_(object), address_(address), queue_(std::move(queue)) {
    closure_ = std::make_shared<const PropertyListener>([this](std::uint32_t,
                                                               const PropertyAddress*) {
      std::uint32_t size = 0;
      service_.getPropertyDataSize(object_, address_, 0, nullptr, &size);
      std::vector<std::uint32_t> value(size / 4);
      if (service_.getPropertyData(object_, address_, 0, nullptr, &size, value.data()) != kNoErr) {
        value.clear();
      }
      calls_.append(value);
    });
    added_ = service_.addPropertyListenerBlock(object_, address_, queue_,
                                               PlatformListenerBlock::copy(closure_)) == kNoErr;
  }
  ~ValueProbe() {
    if (added_) {
      service_.removePropertyListenerBlock(object_, address_, queue_,
                                           PlatformListenerBlock::copy(closure_));
    }
    DrainQueue(queue_);
  }
  ValueProbe(const ValueProbe&) = delete;
  ValueProbe& operator=(const ValueProbe&) = delete;

  bool added() const { return added_; }
  Recorder<std::vector<std::uint32_t>>& calls() { return calls_; }
  bool waitForValue(const std::vector<std::uint32_t>& value) {
    return calls_.waitUntil(
        [&](const auto& values) { return !values.empty() && values.back() == value; });
  }

 private:
  AudioHardwareService& service_;
  ObjectID object_;
  PropertyAddress address_;
  std::shared_ptr<DispatchQueue> queue_;
  SharedPropertyListener closure_;
  Recorder<std::vector<std::uint32_t>> calls_;
  bool added_ = false;
};

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
    PulseTestClient watcher(server_.address());
    Recorder<int> events;
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
    ValueProbe list(*service_, kAudioObjectSystemObject, kDevices, queue_);
    ASSERT_TRUE(list.added());
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
  ValueProbe running(*this->service_, this->microphone_, kRunning, this->queue_);
  ASSERT_TRUE(running.added());
  ChildProcess parecord;
  ASSERT_EQ(this->startParecord(parecord, this->server_.microphone()), "");
  ASSERT_TRUE(running.waitForValue({1})) << this->server_.output();
  parecord.stop(SIGTERM, std::chrono::seconds(5));
  ASSERT_TRUE(running.waitForValue({0}));
  EXPECT_EQ(this->microphoneRunning(), 0u);
}

TYPED_TEST_P(PulseRunningTest, TwoRecordersKeepTheMicrophoneRunningUntilTheLastStops) {
  ValueProbe running(*this->service_, this->microphone_, kRunning, this->queue_);
  ASSERT_TRUE(running.added());
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
  EXPECT_EQ(running.calls().entries(), (std::vector<std::vector<std::uint32_t>>{{1}}));

  second.stop(SIGTERM, std::chrono::seconds(5));
  ASSERT_TRUE(running.waitForValue({0}));
}

TYPED_TEST_P(PulseRunningTest, ALevelMeterNeverMakesTheMicrophoneRunning) {
  ValueProbe running(*this->service_, this->microphone_, kRunning, this->queue_);
  ASSERT_TRUE(running.added());
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
  ValueProbe running(*this->service_, this->microphone_, kRunning, this->queue_);
  ASSERT_TRUE(running.added());
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

  ValueProbe remappedRunning(*this->service_, *remapped, kRunning, this->queue_);
  ASSERT_TRUE(remappedRunning.added());
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
  ValueProbe running(*this->service_, *sink, kRunning, this->queue_);
  ASSERT_TRUE(running.added());
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
  ValueProbe list(*this->service_, kAudioObjectSystemObject, kDevices, this->queue_);
  ASSERT_TRUE(list.added());
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
  ValueProbe list(*this->service_, kAudioObjectSystemObject, kDevices, this->queue_);
  ASSERT_TRUE(list.added());
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
