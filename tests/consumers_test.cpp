// Who uses a device: the consumers' encoding across the seam, the reads, and the controller's
// consumers handler on the simulated services with a real serial queue.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <sstream>

#include "HarkwellFoundation/Consumers/MediaDeviceConsumers.h"
#include "HarkwellFoundation/Controller/MediaDeviceController.h"
#include "HarkwellFoundation/Platform/AudioHardwareConstants.h"
#include "HarkwellFoundation/Platform/DeviceConsumerCoding.h"
#include "HarkwellFoundation/Platform/Simulated/SimulatedHardwareServices.h"
#include "HarkwellFoundation/Platform/VideoHardwareConstants.h"
#include "tests/support/SimulatedServicesFixture.h"
#include "tests/support/Waiting.h"

namespace harkwell {
namespace {

using testing::DrainQueue;
using testing::Recorder;

constexpr PropertyAddress kConsumersAddress = testing::GlobalAddress(kAudioDevicePropertyConsumers);

MediaDeviceConsumer Recorder_(std::int32_t pid, const std::string& name) {
  return MediaDeviceConsumer{.processID = pid,
                             .isProcessIDVerified = true,
                             .executablePath = "/usr/bin/" + name,
                             .processName = name,
                             .applicationName = name,
                             .applicationID = std::nullopt,
                             .kind = MediaDeviceConsumerKind::Application};
}

MediaDeviceConsumer EveryFieldFilter() {
  MediaDeviceConsumer meeting{.processID = 4242,
                              .isProcessIDVerified = false,
                              .executablePath = std::nullopt,
                              .processName = "zoom",
                              .applicationName = "Meeting",
                              .applicationID = "org.example.Meeting",
                              .sandbox = MediaDeviceConsumerSandbox::Flatpak,
                              .sandboxApplicationID = "org.example.Meeting",
                              .kind = MediaDeviceConsumerKind::Application};
  return MediaDeviceConsumer{.processID = 17,
                             .isProcessIDVerified = true,
                             .executablePath = "/usr/bin/pipewire",
                             .processName = "pipewire",
                             .applicationName = "Echo-Cancel Source",
                             .kind = MediaDeviceConsumerKind::Filter,
                             .feeds = {meeting}};
}

std::size_t ConsumerCalls(const SimulatedObjectGraph& service) {
  const auto calls = service.calls();
  return static_cast<std::size_t>(std::count_if(calls.begin(), calls.end(), [](const auto& call) {
    return call.address.mSelector == kAudioDevicePropertyConsumers;
  }));
}

// --- The encoding
// ---------------------------------------------------------------------------------

TEST(DeviceConsumerCoding, EveryKindAndSandboxRoundTrips) {
  std::vector<MediaDeviceConsumer> consumers;
  for (std::size_t kind = 0; kind < 5; ++kind) {
    for (std::size_t sandbox = 0; sandbox < 3; ++sandbox) {
      MediaDeviceConsumer consumer =
          Recorder_(static_cast<std::int32_t>(kind * 10 + sandbox), "p" + std::to_string(kind));
      consumer.kind = static_cast<MediaDeviceConsumerKind>(kind);
      consumer.sandbox = static_cast<MediaDeviceConsumerSandbox>(sandbox);
      consumers.push_back(consumer);
    }
  }
  consumers.push_back(EveryFieldFilter());
  const auto bytes = EncodeDeviceConsumers(consumers);
  EXPECT_EQ(DecodeDeviceConsumers(bytes.data(), bytes.size()), consumers);
}

TEST(DeviceConsumerCoding, AnEmptyStringStaysApartFromAMissingOne) {
  MediaDeviceConsumer consumer;
  consumer.applicationName = "";
  const auto bytes = EncodeDeviceConsumers({consumer});
  const auto decoded = DecodeDeviceConsumers(bytes.data(), bytes.size());
  ASSERT_TRUE(decoded.has_value());
  EXPECT_EQ(decoded->at(0).applicationName, std::optional<std::string>(""));
  EXPECT_EQ(decoded->at(0).applicationID, std::nullopt);
}

TEST(DeviceConsumerCoding, TruncatedOrPaddedBytesAreRefused) {
  const auto bytes = EncodeDeviceConsumers({EveryFieldFilter()});
  for (std::size_t size = 0; size < bytes.size(); ++size) {
    EXPECT_EQ(DecodeDeviceConsumers(bytes.data(), size), std::nullopt) << "size " << size;
  }
  auto padded = bytes;
  padded.push_back(0);
  EXPECT_EQ(DecodeDeviceConsumers(padded.data(), padded.size()), std::nullopt);
  EXPECT_EQ(DecodeDeviceConsumers(nullptr, 12), std::nullopt);
}

TEST(DeviceConsumerCoding, AnUnknownKindIsRefused) {
  MediaDeviceConsumer consumer;
  auto bytes = EncodeDeviceConsumers({consumer});
  // version, count, pid, verified, then the kind word.
  const std::uint32_t unknownKind = 5;
  std::memcpy(bytes.data() + 4 * sizeof(std::uint32_t), &unknownKind, sizeof unknownKind);
  EXPECT_EQ(DecodeDeviceConsumers(bytes.data(), bytes.size()), std::nullopt);
}

TEST(DeviceConsumerCoding, NestingDeeperThanTheLimitIsRefused) {
  MediaDeviceConsumer chain;
  for (int depth = 0; depth < kMaxDeviceConsumerNesting; ++depth) {
    chain = MediaDeviceConsumer{.kind = MediaDeviceConsumerKind::Filter, .feeds = {chain}};
  }
  auto bytes = EncodeDeviceConsumers({chain});
  EXPECT_TRUE(DecodeDeviceConsumers(bytes.data(), bytes.size()).has_value());
  chain = MediaDeviceConsumer{.kind = MediaDeviceConsumerKind::Filter, .feeds = {chain}};
  bytes = EncodeDeviceConsumers({chain});
  EXPECT_EQ(DecodeDeviceConsumers(bytes.data(), bytes.size()), std::nullopt);
}

TEST(DeviceConsumerKinds, OnlyChainsThatEndInAnApplicationReachOne) {
  EXPECT_TRUE(MediaDeviceConsumerReachesApplication(Recorder_(1, "parecord")));
  EXPECT_TRUE(MediaDeviceConsumerReachesApplication(EveryFieldFilter()));
  EXPECT_FALSE(
      MediaDeviceConsumerReachesApplication({.kind = MediaDeviceConsumerKind::LevelMeter}));
  EXPECT_FALSE(MediaDeviceConsumerReachesApplication({.kind = MediaDeviceConsumerKind::Monitor}));
  EXPECT_FALSE(MediaDeviceConsumerReachesApplication(
      {.kind = MediaDeviceConsumerKind::Filter,
       .feeds = {{.kind = MediaDeviceConsumerKind::LevelMeter}}}));
  EXPECT_FALSE(
      MediaDeviceConsumerReachesApplication({.kind = MediaDeviceConsumerKind::MediaServer}));
}

TEST(DeviceConsumerKinds, NamesArePrintable) {
  EXPECT_EQ(caseName(MediaDeviceConsumerKind::LevelMeter), "LevelMeter");
  EXPECT_EQ(caseName(MediaDeviceConsumerSandbox::Snap), "Snap");
  std::ostringstream text;
  text << Recorder_(7, "arecord");
  EXPECT_EQ(text.str(),
            "MediaDeviceConsumer(processID: 7, isProcessIDVerified: true, executablePath: "
            "\"/usr/bin/arecord\", processName: \"arecord\", applicationName: \"arecord\", "
            "applicationID: nil, sandbox: None, sandboxApplicationID: nil, kind: Application, "
            "feeds: [])");
}

// --- Reads ---------------------------------------------------------------------------------------

class ConsumerReadTest : public testing::SimulatedServicesTest {};

TEST_F(ConsumerReadTest, ADeviceReadsTheConsumersItWasGiven) {
  audio->addDevice({.deviceID = 10,
                    .name = "mic",
                    .deviceUID = "mic-uid",
                    .consumers = {Recorder_(100, "parecord"), EveryFieldFilter()}});
  const MediaDevice device{.deviceID = 10, .mediaType = MediaType::Audio};
  EXPECT_EQ(MediaDeviceConsumersForDevice(device),
            (std::vector<MediaDeviceConsumer>{Recorder_(100, "parecord"), EveryFieldFilter()}));
}

TEST_F(ConsumerReadTest, AServiceThatCannotTellGivesNothing) {
  video->addDevice({.deviceID = 20, .name = "cam", .deviceUID = "cam-uid"});
  video->removeProperty(20, kConsumersAddress);
  EXPECT_EQ(MediaDeviceConsumersForDevice({.deviceID = 20, .mediaType = MediaType::Video}),
            std::nullopt);
  EXPECT_EQ(MediaDeviceConsumersForDevice({.deviceID = 99, .mediaType = MediaType::Video}),
            std::nullopt);
}

TEST_F(ConsumerReadTest, GarbageFromAServiceGivesNothing) {
  audio->addDevice({.deviceID = 10, .name = "mic", .deviceUID = "mic-uid"});
  audio->setProperty(10, kConsumersAddress, SimulatedPropertyValue::Bytes({1, 2, 3}));
  EXPECT_EQ(MediaDeviceConsumersForDevice({.deviceID = 10}), std::nullopt);
}

// --- The controller ------------------------------------------------------------------------------

struct ConsumersSeen {
  std::string device;
  std::vector<std::int32_t> processIDs;
  bool onQueue = false;
};

class ControllerConsumersTest : public testing::SimulatedServicesTest {
 protected:
  void TearDown() override {
    if (controller_) controller_->setObserveDevices(false);
    controller_.reset();
    DrainQueue(queue_);
    SimulatedServicesTest::TearDown();
  }

  void makeController(bool followConsumers) {
    controller_ = MediaDeviceController::create(queue_);
    controller_->setDeviceEventHandler([this](MediaDeviceEvent event, const MediaDevice& device) {
      timeline_.append(std::string(caseName(event)) + " " + device.name);
    });
    if (followConsumers) followConsumers_();
  }

  void followConsumers_() {
    controller_->setDeviceConsumersHandler(
        [this](const MediaDevice& device, const std::vector<MediaDeviceConsumer>& consumers) {
          std::string line = "consumers " + device.name + ":";
          for (const auto& consumer : consumers) line += " " + std::to_string(consumer.processID);
          timeline_.append(line);
          onQueue_.append(queue_->isCurrent());
        });
  }

  std::shared_ptr<DispatchQueue> queue_ = DispatchQueue::createSerial("consumers-test");
  std::shared_ptr<MediaDeviceController> controller_;
  Recorder<std::string> timeline_;
  Recorder<bool> onQueue_;
};

TEST_F(ControllerConsumersTest, AClientWithoutAConsumersHandlerCausesNoConsumerReads) {
  audio->addDevice({.deviceID = 10,
                    .name = "mic",
                    .deviceUID = "mic-uid",
                    .consumers = {Recorder_(100, "parecord")}});
  audio->clearCalls();
  makeController(false);
  controller_->setObserveDevices(true);
  DrainQueue(queue_);
  audio->setDeviceConsumers(10, {Recorder_(101, "arecord")});
  DrainQueue(queue_);
  EXPECT_EQ(ConsumerCalls(*audio), 0u);
  EXPECT_EQ(timeline_.entries(), std::vector<std::string>{"InitialDiscovery mic"});
}

TEST_F(ControllerConsumersTest, ConsumersAlreadyThereFollowTheDevicesFirstEvent) {
  audio->addDevice({.deviceID = 10,
                    .name = "mic",
                    .deviceUID = "mic-uid",
                    .consumers = {Recorder_(100, "parecord")}});
  video->addDevice({.deviceID = 20, .name = "cam", .deviceUID = "cam-uid"});
  makeController(true);
  controller_->setObserveDevices(true);
  DrainQueue(queue_);
  EXPECT_EQ(timeline_.entries(),
            (std::vector<std::string>{"InitialDiscovery mic", "consumers mic: 100",
                                      "InitialDiscovery cam"}));
  EXPECT_TRUE(std::ranges::all_of(onQueue_.entries(), [](bool on) { return on; }));
}

TEST_F(ControllerConsumersTest, EachChangeIsReportedOnceAndTheSameListIsNotRepeated) {
  audio->addDevice({.deviceID = 10, .name = "mic", .deviceUID = "mic-uid"});
  makeController(true);
  controller_->setObserveDevices(true);
  DrainQueue(queue_);
  // Each change is waited for: a listener reads the state of its own moment, so changes made
  // faster than the queue runs may be reported together.
  audio->setDeviceConsumers(10, {Recorder_(100, "parecord")});
  ASSERT_TRUE(timeline_.waitForCount(2));
  audio->setDeviceConsumers(10, {Recorder_(100, "parecord")});
  DrainQueue(queue_);
  EXPECT_EQ(timeline_.size(), 2u);
  audio->setDeviceConsumers(10, {Recorder_(100, "parecord"), Recorder_(200, "pw-record")});
  ASSERT_TRUE(timeline_.waitForCount(3));
  audio->setDeviceConsumers(10, {});
  ASSERT_TRUE(timeline_.waitForCount(4));
  DrainQueue(queue_);
  EXPECT_EQ(timeline_.entries(),
            (std::vector<std::string>{"InitialDiscovery mic", "consumers mic: 100",
                                      "consumers mic: 100 200", "consumers mic:"}));
}

TEST_F(ControllerConsumersTest, AConnectedDeviceIsFollowedAfterItsEventAndLetGoBeforeItLeaves) {
  makeController(true);
  controller_->setObserveDevices(true);
  DrainQueue(queue_);
  video->addDevice({.deviceID = 20,
                    .name = "cam",
                    .deviceUID = "cam-uid",
                    .consumers = {Recorder_(300, "cheese")}});
  ASSERT_TRUE(timeline_.waitForCount(2));
  DrainQueue(queue_);
  EXPECT_EQ(video->listenerCount(20, kConsumersAddress), 1u);
  video->removeDevice(20);
  ASSERT_TRUE(timeline_.waitForCount(3));
  DrainQueue(queue_);
  EXPECT_EQ(timeline_.entries(),
            (std::vector<std::string>{"Connected cam", "consumers cam: 300", "Disconnected cam"}));
  EXPECT_EQ(video->listenerCount(20, kConsumersAddress), 0u);
}

TEST_F(ControllerConsumersTest, AHandlerSetWhileObservingFollowsAndClearingItLetsGo) {
  audio->addDevice({.deviceID = 10,
                    .name = "mic",
                    .deviceUID = "mic-uid",
                    .consumers = {Recorder_(100, "parecord")}});
  makeController(false);
  controller_->setObserveDevices(true);
  DrainQueue(queue_);
  followConsumers_();
  DrainQueue(queue_);
  EXPECT_EQ(audio->listenerCount(10, kConsumersAddress), 1u);
  controller_->setDeviceConsumersHandler(nullptr);
  DrainQueue(queue_);
  EXPECT_EQ(audio->listenerCount(10, kConsumersAddress), 0u);
  audio->setDeviceConsumers(10, {});
  DrainQueue(queue_);
  EXPECT_EQ(timeline_.entries(),
            (std::vector<std::string>{"InitialDiscovery mic", "consumers mic: 100"}));
}

TEST_F(ControllerConsumersTest, StoppingObservationLetsGoOfEveryDevice) {
  audio->addDevice({.deviceID = 10, .name = "mic", .deviceUID = "mic-uid"});
  video->addDevice({.deviceID = 20, .name = "cam", .deviceUID = "cam-uid"});
  makeController(true);
  controller_->setObserveDevices(true);
  DrainQueue(queue_);
  EXPECT_EQ(audio->listenerCount(10, kConsumersAddress), 1u);
  EXPECT_EQ(video->listenerCount(20, kConsumersAddress), 1u);
  controller_->setObserveDevices(false);
  DrainQueue(queue_);
  EXPECT_EQ(audio->listenerCount(10, kConsumersAddress), 0u);
  EXPECT_EQ(video->listenerCount(20, kConsumersAddress), 0u);
}

TEST_F(ControllerConsumersTest, ADeviceWhoseListenerIsRefusedIsFollowedWhenItComesBack) {
  audio->addFailure(SimulatedFailure{.kind = SimulatedCallKind::AddPropertyListener,
                                     .selector = kAudioDevicePropertyConsumers,
                                     .status = kAudioHardwareUnknownPropertyError,
                                     .count = 1});
  audio->addDevice({.deviceID = 10,
                    .name = "mic",
                    .deviceUID = "mic-uid",
                    .consumers = {Recorder_(100, "parecord")}});
  makeController(true);
  controller_->setObserveDevices(true);
  DrainQueue(queue_);
  EXPECT_EQ(audio->listenerCount(10, kConsumersAddress), 0u);
  EXPECT_EQ(timeline_.entries(), std::vector<std::string>{"InitialDiscovery mic"});
  audio->removeDevice(10);
  ASSERT_TRUE(timeline_.waitForCount(2));
  audio->addDevice({.deviceID = 10,
                    .name = "mic",
                    .deviceUID = "mic-uid",
                    .consumers = {Recorder_(100, "parecord")}});
  ASSERT_TRUE(timeline_.waitForCount(4));
  DrainQueue(queue_);
  EXPECT_EQ(timeline_.entries(),
            (std::vector<std::string>{"InitialDiscovery mic", "Disconnected mic", "Connected mic",
                                      "consumers mic: 100"}));
  EXPECT_EQ(audio->listenerCount(10, kConsumersAddress), 1u);
}

TEST_F(ControllerConsumersTest, TheQueryReadsTheServiceNow) {
  audio->addDevice({.deviceID = 10, .name = "mic", .deviceUID = "mic-uid"});
  makeController(false);
  controller_->setObserveDevices(true);
  DrainQueue(queue_);
  const MediaDevice mic = controller_->connectedDevices().at(0);
  EXPECT_EQ(controller_->consumersOfDevice(mic), std::vector<MediaDeviceConsumer>{});
  audio->setDeviceConsumers(10, {EveryFieldFilter()});
  EXPECT_EQ(controller_->consumersOfDevice(mic),
            std::vector<MediaDeviceConsumer>{EveryFieldFilter()});
}

}  // namespace
}  // namespace harkwell
