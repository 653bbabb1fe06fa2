// Long runs through MediaDeviceController on the simulated services: devices are plugged in,
// started (and used by a recorder, or a media server for its client), switched to another input
// source, stopped and unplugged again and again, and every cycle must give the client exactly the
// same events and consumer reports while memory stays flat and nothing leaks.
//
// The default length suits CI in every build; HARKWELL_SOAK_CYCLES=100000 runs the full soak.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <memory>

#include "HarkwellFoundation/Controller/MediaDeviceController.h"
#include "HarkwellFoundation/Platform/AudioHardwareConstants.h"
#include "HarkwellFoundation/Platform/MainRunLoop.h"
#include "HarkwellFoundation/Platform/Simulated/SimulatedHardwareServices.h"
#include "HarkwellFoundation/Platform/SystemLog.h"
#include "HarkwellFoundation/Platform/VideoHardwareConstants.h"
#include "tests/reliability/ClientViewChecker.h"
#include "tests/reliability/DeviceIncarnation.h"
#include "tests/reliability/HeapInUse.h"
#include "tests/reliability/LeakCheck.h"
#include "tests/reliability/QueueDrain.h"
#include "tests/reliability/RunLength.h"
#include "tests/support/ScopedHardwareServices.h"

namespace harkwell {
namespace {

using testing::ClientViewChecker;
using testing::DeviceIncarnation;
using testing::DrainQueueServingMainThread;

constexpr std::uint64_t kDefaultCycles = 2000;
// Memory is compared against its level after this many cycles, when every cache, map and pool
// has reached its working size.
constexpr std::uint64_t kWarmUpCycles = 1000;
// Observation is switched off and on again this often, so start and stop are soaked too.
constexpr std::uint64_t kRestartEvery = 500;
constexpr std::uint32_t kFirstCycleDeviceID = 100;
// Cycle devices take their IDs from a small pool, so IDs come back for new devices.
constexpr std::uint32_t kCycleDeviceIDs = 16;

SimulatedAudioDevice AudioDeviceFor(const DeviceIncarnation& incarnation, std::uint32_t transport) {
  return SimulatedAudioDevice{.deviceID = incarnation.deviceID,
                              .name = incarnation.name(),
                              .deviceUID = incarnation.uid(),
                              .modelUID = incarnation.modelUID(),
                              .transportType = transport,
                              .inputStreamCount = incarnation.inputCount,
                              .outputStreamCount = incarnation.outputCount,
                              .selectedDataSource = 1,
                              .dataSourceNames = {{1, DeviceIncarnation::inputSourceName(1)},
                                                  {2, DeviceIncarnation::inputSourceName(2)}}};
}

SimulatedVideoDevice VideoDeviceFor(const DeviceIncarnation& incarnation) {
  return SimulatedVideoDevice{.deviceID = incarnation.deviceID,
                              .name = incarnation.name(),
                              .deviceUID = incarnation.uid(),
                              .modelUID = incarnation.modelUID(),
                              .transportType = kVideoTransportTypeUSB,
                              .inputStreamCount = incarnation.inputCount,
                              .outputStreamCount = incarnation.outputCount};
}

// Who uses a started device: a recorder on the microphone, a media server serving a sandboxed
// application on the camera.
std::vector<MediaDeviceConsumer> ConsumersWhileRunning(const DeviceIncarnation& incarnation) {
  const auto pid = static_cast<std::int32_t>(1000 + incarnation.generation);
  if (incarnation.mediaType == MediaType::Audio) {
    return {{.processID = pid,
             .isProcessIDVerified = true,
             .executablePath = "/usr/bin/parecord",
             .processName = "parecord",
             .applicationName = incarnation.name()}};
  }
  return {{.processID = pid,
           .isProcessIDVerified = true,
           .processName = "pipewire",
           .kind = MediaDeviceConsumerKind::MediaServer,
           .feeds = {{.processID = pid + 1,
                      .applicationName = incarnation.name(),
                      .sandbox = MediaDeviceConsumerSandbox::Flatpak,
                      .sandboxApplicationID = "org.example.Soak"}}}};
}

// The record the client must be handed for a freshly plugged device.
MediaDevice ExpectedRecord(const DeviceIncarnation& incarnation, MediaDeviceTransportType transport,
                           std::optional<std::string> inputSource) {
  return MediaDevice{.deviceID = incarnation.deviceID,
                     .mediaType = incarnation.mediaType,
                     .deviceUID = incarnation.uid(),
                     .modelUID = incarnation.modelUID(),
                     .transportType = transport,
                     .name = incarnation.name(),
                     .inputSourceName = std::move(inputSource),
                     .inputChannelCount = incarnation.inputCount,
                     .outputChannelCount = incarnation.outputCount,
                     .isConnected = true,
                     .isRunning = false,
                     .unsupportedReason = MediaDeviceUnsupportedReasonForChannelCounts(
                         incarnation.inputCount, incarnation.outputCount)};
}

class SoakTest : public ::testing::Test {
 protected:
  void SetUp() override {
    audio_->setRecordingCalls(false);
    video_->setRecordingCalls(false);
    services_.install(audio_, video_);
    previousSink_ = InstallLogSink([this](std::string_view) { ++logLines_; });
    // Bluetooth microphones are polled; the poll timer waits for a clock that only the test moves.
    MainRunLoop::shared().useManualClockForTesting();
  }

  void TearDown() override {
    MainRunLoop::shared().useSystemClockForTesting();
    InstallLogSink(std::move(previousSink_));
    services_.restore();
  }

  // Everything the last change caused has reached the client, and it broke no rule.
  void settle(ClientViewChecker& checker, const char* step, std::uint64_t cycle) {
    ASSERT_TRUE(DrainQueueServingMainThread(queue_)) << step << " in cycle " << cycle;
    auto violation = checker.firstViolation();
    ASSERT_FALSE(violation) << step << " in cycle " << cycle << ": " << *violation;
  }

  std::shared_ptr<DispatchQueue> queue_ = DispatchQueue::createSerial("soak-test");
  std::shared_ptr<SimulatedAudioHardwareService> audio_ = SimulatedAudioHardwareService::create();
  std::shared_ptr<SimulatedVideoHardwareService> video_ = SimulatedVideoHardwareService::create();
  std::atomic<std::uint64_t> logLines_{0};

 private:
  testing::ScopedHardwareServices services_;
  LogSink previousSink_;
};

TEST_F(SoakTest, PlugRunChangeUnplugCyclesKeepEventsExactAndMemoryFlat) {
  const std::uint64_t cycles =
      testing::RunLengthFromEnvironment("HARKWELL_SOAK_CYCLES", kDefaultCycles);
  ASSERT_GT(cycles, kWarmUpCycles) << "HARKWELL_SOAK_CYCLES must exceed the warm-up";

  // Two devices stay plugged in throughout, so every restart has something to discover.
  const DeviceIncarnation builtInMicrophone{.mediaType = MediaType::Audio, .deviceID = 2};
  const DeviceIncarnation builtInCamera{.mediaType = MediaType::Video, .deviceID = 2};
  audio_->addDevice(AudioDeviceFor(builtInMicrophone, kAudioDeviceTransportTypeBuiltIn));
  video_->addDevice(VideoDeviceFor(builtInCamera));

  ClientViewChecker checker(queue_);
  auto controller = MediaDeviceController::create(queue_);
  checker.attach(*controller, /*followConsumers=*/true);
  controller->setObserveDevices(true);
  settle(checker, "initial discovery", 0);
  ASSERT_EQ(checker.eventCount(MediaDeviceEvent::InitialDiscovery), 2u);

  std::array<std::uint64_t, 5> expected = checker.eventCounts();
  auto expect = [&](MediaDeviceEvent event, std::uint64_t count) {
    expected[hashValue(event)] += count;
  };
  std::uint64_t expectedConsumerReports = 0;
  std::size_t heapAfterWarmUp = 0;

  for (std::uint64_t cycle = 1; cycle <= cycles; ++cycle) {
    const auto slot = static_cast<std::uint32_t>(cycle % kCycleDeviceIDs);
    const auto generation = static_cast<std::uint32_t>(cycle);
    const bool bluetooth = cycle % 4 == 0;
    const DeviceIncarnation microphone{.mediaType = MediaType::Audio,
                                       .deviceID = kFirstCycleDeviceID + slot,
                                       .generation = generation,
                                       .inputCount = 1 + slot % 2,
                                       .outputCount = slot % 3 == 0 ? 1u : 0u};
    const DeviceIncarnation camera{.mediaType = MediaType::Video,
                                   .deviceID = kFirstCycleDeviceID + slot,
                                   .generation = generation};

    audio_->addDevice(AudioDeviceFor(
        microphone, bluetooth ? kAudioDeviceTransportTypeBluetooth : kAudioDeviceTransportTypeUSB));
    video_->addDevice(VideoDeviceFor(camera));
    expect(MediaDeviceEvent::Connected, 2);
    ASSERT_NO_FATAL_FAILURE(settle(checker, "plugging in", cycle));
    MediaDevice microphoneRecord = ExpectedRecord(
        microphone, bluetooth ? MediaDeviceTransportType::Bluetooth : MediaDeviceTransportType::USB,
        DeviceIncarnation::inputSourceName(1));
    MediaDevice cameraRecord = ExpectedRecord(camera, MediaDeviceTransportType::USB, std::nullopt);
    ASSERT_EQ(checker.view().at({MediaType::Audio, microphone.deviceID}), microphoneRecord);
    ASSERT_EQ(checker.view().at({MediaType::Video, camera.deviceID}), cameraRecord);

    audio_->setDeviceRunning(microphone.deviceID, true);
    video_->setDeviceRunning(camera.deviceID, true);
    audio_->setDeviceConsumers(microphone.deviceID, ConsumersWhileRunning(microphone));
    video_->setDeviceConsumers(camera.deviceID, ConsumersWhileRunning(camera));
    expect(MediaDeviceEvent::ChangedRunning, 2);
    expectedConsumerReports += 2;
    ASSERT_NO_FATAL_FAILURE(settle(checker, "starting", cycle));
    microphoneRecord.isRunning = true;
    cameraRecord.isRunning = true;
    ASSERT_EQ(checker.consumersView(),
              (std::map<ClientViewChecker::DeviceKey, std::vector<MediaDeviceConsumer>>{
                  {{MediaType::Audio, microphone.deviceID}, ConsumersWhileRunning(microphone)},
                  {{MediaType::Video, camera.deviceID}, ConsumersWhileRunning(camera)}}));

    audio_->setSelectedDataSource(microphone.deviceID, 2);
    expect(MediaDeviceEvent::ChangedInputSource, 1);
    ASSERT_NO_FATAL_FAILURE(settle(checker, "changing the input source", cycle));
    microphoneRecord.inputSourceName = DeviceIncarnation::inputSourceName(2);
    ASSERT_EQ(checker.view().at({MediaType::Audio, microphone.deviceID}), microphoneRecord);
    ASSERT_EQ(checker.view().at({MediaType::Video, camera.deviceID}), cameraRecord);

    audio_->setDeviceRunning(microphone.deviceID, false);
    video_->setDeviceRunning(camera.deviceID, false);
    audio_->setDeviceConsumers(microphone.deviceID, {});
    video_->setDeviceConsumers(camera.deviceID, {});
    expect(MediaDeviceEvent::ChangedRunning, 2);
    expectedConsumerReports += 2;
    ASSERT_NO_FATAL_FAILURE(settle(checker, "stopping", cycle));
    ASSERT_TRUE(checker.consumersView().empty());

    audio_->removeDevice(microphone.deviceID);
    video_->removeDevice(camera.deviceID);
    expect(MediaDeviceEvent::Disconnected, 2);
    ASSERT_NO_FATAL_FAILURE(settle(checker, "unplugging", cycle));

    if (cycle % kRestartEvery == 0) {
      controller->setObserveDevices(false);
      ASSERT_NO_FATAL_FAILURE(settle(checker, "switching off", cycle));
      checker.forgetDevices();
      controller->setObserveDevices(true);
      expect(MediaDeviceEvent::InitialDiscovery, 2);
      ASSERT_NO_FATAL_FAILURE(settle(checker, "switching on", cycle));
    }

    ASSERT_EQ(checker.eventCounts(), expected) << "events by kind after cycle " << cycle;
    ASSERT_EQ(checker.consumerReportCount(), expectedConsumerReports) << "after cycle " << cycle;
    ASSERT_FALSE(checker.isInsideBracket());
    auto difference = checker.differenceFromCaches(*controller);
    ASSERT_FALSE(difference) << "after cycle " << cycle << ": " << *difference;
    if (cycle == kWarmUpCycles) heapAfterWarmUp = testing::HeapBytesInUse();
  }

  const std::size_t heapAtEnd = testing::HeapBytesInUse();
  std::printf("soak: %llu cycles; heap in use after %llu cycles %zu bytes, at the end %zu bytes\n",
              static_cast<unsigned long long>(cycles),
              static_cast<unsigned long long>(kWarmUpCycles), heapAfterWarmUp, heapAtEnd);
  EXPECT_LE(static_cast<double>(heapAtEnd), static_cast<double>(heapAfterWarmUp) * 1.05)
      << "heap grew from " << heapAfterWarmUp << " to " << heapAtEnd << " bytes";
  EXPECT_EQ(logLines_.load(), 0u) << "no platform call failed, so nothing may be logged";
  // Left: each service's device-list listener, and the built-in devices' property listeners
  // (running state, input source and consumers for the microphone, running state and consumers
  // for the camera).
  EXPECT_EQ(audio_->listenerCount(), 4u);
  EXPECT_EQ(video_->listenerCount(), 3u);

  controller->setObserveDevices(false);
  ASSERT_TRUE(DrainQueueServingMainThread(queue_));
  EXPECT_EQ(audio_->listenerCount(), 0u);
  EXPECT_EQ(video_->listenerCount(), 0u);
  EXPECT_EQ(MainRunLoop::shared().scheduledTimerCountForTesting(), 0u);
}

TEST_F(SoakTest, ControllerAndObserversLeaveNothingBehindAfterManyStarts) {
  const DeviceIncarnation microphone{.mediaType = MediaType::Audio, .deviceID = 5};
  auto bluetoothMicrophone = AudioDeviceFor(microphone, kAudioDeviceTransportTypeBluetooth);
  bluetoothMicrophone.consumers = ConsumersWhileRunning(microphone);
  audio_->addDevice(bluetoothMicrophone);
  const std::uint64_t starts =
      testing::RunLengthFromEnvironment("HARKWELL_SOAK_CYCLES", kDefaultCycles) / 10;
  {
    ClientViewChecker checker(queue_);
    for (std::uint64_t start = 0; start < starts; ++start) {
      auto controller = MediaDeviceController::create(queue_);
      checker.attach(*controller, /*followConsumers=*/true);
      controller->setObserveDevices(true);
      ASSERT_NO_FATAL_FAILURE(settle(checker, "switching on", start));
      controller->setObserveDevices(false);
      ASSERT_NO_FATAL_FAILURE(settle(checker, "switching off", start));
      checker.forgetDevices();
    }
    EXPECT_EQ(checker.eventCount(MediaDeviceEvent::InitialDiscovery), starts);
    EXPECT_EQ(checker.consumerReportCount(), starts) << "one report after each discovery";
  }
  ASSERT_TRUE(DrainQueueServingMainThread(queue_));
  EXPECT_EQ(audio_->listenerCount(), 0u);
  EXPECT_EQ(MainRunLoop::shared().scheduledTimerCountForTesting(), 0u);
  if (testing::LeakCheckAvailable()) {
    EXPECT_FALSE(testing::LeaksFoundNow());
  }
}

}  // namespace
}  // namespace harkwell
