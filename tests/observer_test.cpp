// The observer base: the cache, the record build and its abort rule, connects and disconnects,
// the running and input-source notes, the updating brackets, the initial fill and the teardown.
#include <gtest/gtest.h>

#include <algorithm>
#include <future>

#include "HarkwellFoundation/Observer/MediaDeviceObserver.h"
#include "tests/support/LogCapture.h"
#include "tests/support/ScriptedDeviceObserver.h"
#include "tests/support/Waiting.h"

namespace harkwell {
namespace {

using testing::CompleteDevice;
using testing::DeviceScript;
using testing::DrainQueue;
using testing::LogCapture;
using testing::ScriptedDevice;
using testing::ScriptedDeviceObserver;

struct Event {
  MediaDeviceEvent event;
  MediaDevice device;
};

class ObserverTest : public ::testing::Test {
 protected:
  std::shared_ptr<ScriptedDeviceObserver> makeObserver(MediaType type = MediaType::Audio) {
    auto observer = ScriptedDeviceObserver::create(queue_, script_, type);
    observer->setUpdatingDevicesHandler(
        [this](MediaDeviceObserver&, bool finished) { brackets_.push_back(finished); });
    observer->setDeviceEventHandler(
        [this](MediaDeviceObserver&, MediaDeviceEvent event, const MediaDevice& device) {
          events_.push_back({event, device});
        });
    DrainQueue(queue_);  // the initial fill
    return observer;
  }

  // Runs on the observer's queue, as a platform listener would.
  void onQueue(std::function<void()> work) { queue_->sync(std::move(work)); }

  void noteListChanged(const std::shared_ptr<ScriptedDeviceObserver>& observer) {
    onQueue([&] { observer->noteConnectedDevicesDidChange(); });
  }

  std::shared_ptr<DispatchQueue> queue_ = DispatchQueue::createSerial("observer-test");
  std::shared_ptr<DeviceScript> script_ = std::make_shared<DeviceScript>();
  // Written on the queue, read by the test after the queue is drained.
  std::vector<bool> brackets_;
  std::vector<Event> events_;
  LogCapture log_;
};

TEST_F(ObserverTest, InitialFillCachesDevicesSilently) {
  script_->setDevice(3, CompleteDevice("mic"));
  script_->setConnectedDeviceIDs({3});
  auto observer = makeObserver();
  EXPECT_TRUE(brackets_.empty());
  EXPECT_TRUE(events_.empty());
  ASSERT_TRUE(observer->cachedDeviceForDeviceID(3));
  EXPECT_TRUE(observer->cachedDeviceForDeviceID(3)->isConnected);
  EXPECT_EQ(observer->connectedDevices().size(), 1u);
}

TEST_F(ObserverTest, NoChangeGivesOnlyTheTwoBrackets) {
  script_->setDevice(3, CompleteDevice("mic"));
  script_->setConnectedDeviceIDs({3});
  auto observer = makeObserver();
  noteListChanged(observer);
  EXPECT_EQ(brackets_, (std::vector<bool>{false, true}));
  EXPECT_TRUE(events_.empty());
}

TEST_F(ObserverTest, VanishedDeviceGivesOneDisconnectedWithConnectedAndRunningFalse) {
  auto device = CompleteDevice("mic", /*isRunning=*/true);
  device.inputSourceName = "Line In";
  script_->setDevice(3, device);
  script_->setConnectedDeviceIDs({3});
  auto observer = makeObserver();
  ASSERT_TRUE(observer->cachedDeviceForDeviceID(3)->isRunning);

  script_->setConnectedDeviceIDs({});
  noteListChanged(observer);

  ASSERT_EQ(events_.size(), 1u);
  EXPECT_EQ(events_[0].event, MediaDeviceEvent::Disconnected);
  EXPECT_FALSE(events_[0].device.isConnected);
  EXPECT_FALSE(events_[0].device.isRunning);
  EXPECT_EQ(events_[0].device.name, "mic");
  EXPECT_EQ(events_[0].device.inputSourceName, "Line In");
  EXPECT_FALSE(observer->cachedDeviceForDeviceID(3));
  EXPECT_TRUE(observer->connectedDevices().empty());
}

TEST_F(ObserverTest, DisconnectedComesBeforeConnectedInOneChange) {
  script_->setDevice(3, CompleteDevice("old"));
  script_->setDevice(4, CompleteDevice("new"));
  script_->setConnectedDeviceIDs({3});
  auto observer = makeObserver();

  script_->setConnectedDeviceIDs({4});
  noteListChanged(observer);

  ASSERT_EQ(events_.size(), 2u);
  EXPECT_EQ(events_[0].event, MediaDeviceEvent::Disconnected);
  EXPECT_EQ(events_[0].device.deviceID, 3u);
  EXPECT_EQ(events_[1].event, MediaDeviceEvent::Connected);
  EXPECT_EQ(events_[1].device.deviceID, 4u);
  EXPECT_EQ(brackets_, (std::vector<bool>{false, true}));
}

TEST_F(ObserverTest, ReusedDeviceIDForAnotherDeviceSendsNoEvent) {
  script_->setDevice(3, CompleteDevice("first"));
  script_->setConnectedDeviceIDs({3});
  auto observer = makeObserver();

  script_->setDevice(3, CompleteDevice("second"));
  noteListChanged(observer);

  EXPECT_TRUE(events_.empty());
  EXPECT_EQ(observer->cachedDeviceForDeviceID(3)->name, "first");
}

TEST_F(ObserverTest, UnreadableUIDIsLeftOutAndLoggedAtEveryChangeUntilReadable) {
  auto device = CompleteDevice("camera");
  device.deviceUID = std::nullopt;
  script_->setDevice(5, device);
  script_->setConnectedDeviceIDs({5});
  auto observer = makeObserver(MediaType::Video);
  noteListChanged(observer);
  noteListChanged(observer);

  EXPECT_TRUE(events_.empty());
  EXPECT_FALSE(observer->cachedDeviceForDeviceID(5));
  const std::string line = "Cannot initialize Video device for device ID: 5";
  EXPECT_EQ(log_.lines(), (std::vector<std::string>{line, line, line}));

  script_->editDevice(5, [](ScriptedDevice& d) { d.deviceUID = "camera-uid"; });
  noteListChanged(observer);
  ASSERT_EQ(events_.size(), 1u);
  EXPECT_EQ(events_[0].event, MediaDeviceEvent::Connected);
  EXPECT_EQ(events_[0].device.deviceUID, "camera-uid");
  EXPECT_EQ(log_.lines().size(), 3u);
}

TEST_F(ObserverTest, AudioObserverLogsAudioInCannotInitializeLine) {
  script_->setDevice(4294967295u, ScriptedDevice{});
  script_->setConnectedDeviceIDs({4294967295u});
  auto observer = makeObserver(MediaType::Audio);
  EXPECT_EQ(log_.lines(),
            (std::vector<std::string>{"Cannot initialize Audio device for device ID: 4294967295"}));
}

TEST_F(ObserverTest, RecordIsBuiltByQueriesInOrder) {
  auto device = CompleteDevice("mic", true);
  device.inputSourceName = "Front";
  device.channelCounts = MediaDeviceChannelCounts{2, 2};
  device.transportType = MediaDeviceTransportType::Bluetooth;
  script_->setDevice(9, device);
  script_->setConnectedDeviceIDs({9});
  auto observer = makeObserver();

  EXPECT_EQ(script_->calls(),
            (std::vector<std::string>{
                "connectedDeviceIDs()", "deviceNameForDeviceID(9)", "deviceUIDForDeviceID(9)",
                "deviceChannelCountsForDeviceID(9)", "deviceIsRunningForDeviceID(9)",
                "deviceModelUIDForDeviceID(9)", "deviceTransportTypeForDeviceID(9)",
                "deviceInputSourceNameForDeviceID(9)"}));
  EXPECT_EQ(
      observer->cachedDeviceForDeviceID(9),
      (MediaDevice{.deviceID = 9,
                   .mediaType = MediaType::Audio,
                   .deviceUID = "mic-uid",
                   .modelUID = "mic-model",
                   .transportType = MediaDeviceTransportType::Bluetooth,
                   .name = "mic",
                   .inputSourceName = "Front",
                   .inputChannelCount = 2,
                   .outputChannelCount = 2,
                   .isConnected = true,
                   .isRunning = true,
                   .unsupportedReason = MediaDeviceUnsupportedReason::InputAndOutputChannels}));
}

TEST_F(ObserverTest, FirstMissingRequiredAnswerStopsTheBuild) {
  struct Case {
    void (*breakDevice)(ScriptedDevice&);
    std::size_t queriesMade;
  };
  const Case cases[] = {
      {[](ScriptedDevice& d) { d.name = std::nullopt; }, 1},
      {[](ScriptedDevice& d) { d.deviceUID = std::nullopt; }, 2},
      {[](ScriptedDevice& d) { d.channelCounts = std::nullopt; }, 3},
      {[](ScriptedDevice& d) { d.isRunning = std::nullopt; }, 4},
  };
  for (const auto& c : cases) {
    auto device = CompleteDevice("mic");
    c.breakDevice(device);
    script_->setDevice(2, device);
    script_->setConnectedDeviceIDs({2});
    script_->clearCalls();
    log_.clear();
    auto observer = makeObserver();
    const auto calls = script_->calls();
    ASSERT_EQ(calls.size(), 1 + c.queriesMade);  // the list read, then the queries
    EXPECT_FALSE(observer->cachedDeviceForDeviceID(2));
    EXPECT_EQ(log_.lines(),
              (std::vector<std::string>{"Cannot initialize Audio device for device ID: 2"}));
  }
}

TEST_F(ObserverTest, MissingOptionalAnswersKeepTheDevice) {
  auto device = CompleteDevice("mic");
  device.modelUID = std::nullopt;
  device.inputSourceName = std::nullopt;
  script_->setDevice(2, device);
  script_->setConnectedDeviceIDs({2});
  auto observer = makeObserver();
  ASSERT_TRUE(observer->cachedDeviceForDeviceID(2));
  EXPECT_EQ(observer->cachedDeviceForDeviceID(2)->modelUID, std::nullopt);
  EXPECT_EQ(observer->cachedDeviceForDeviceID(2)->inputSourceName, std::nullopt);
  EXPECT_TRUE(log_.lines().empty());
}

TEST_F(ObserverTest, NewIDListedTwiceIsBuiltAndReportedTwice) {
  auto observer = makeObserver();
  script_->setDevice(6, CompleteDevice("twice"));
  script_->setConnectedDeviceIDs({6, 6});
  script_->clearCalls();
  noteListChanged(observer);
  ASSERT_EQ(events_.size(), 2u);
  EXPECT_EQ(events_[0].event, MediaDeviceEvent::Connected);
  EXPECT_EQ(events_[1].event, MediaDeviceEvent::Connected);
  EXPECT_EQ(events_[0].device, events_[1].device);
  EXPECT_EQ(observer->connectedDevices().size(), 1u);
  const auto calls = script_->calls();
  EXPECT_EQ(std::count(calls.begin(), calls.end(), "deviceNameForDeviceID(6)"), 2);
}

TEST_F(ObserverTest, ConnectedCarriesTheRecordJustCached) {
  auto observer = makeObserver();
  script_->setDevice(8, CompleteDevice("usb-mic"));
  script_->setConnectedDeviceIDs({8});
  noteListChanged(observer);
  ASSERT_EQ(events_.size(), 1u);
  EXPECT_EQ(events_[0].event, MediaDeviceEvent::Connected);
  EXPECT_EQ(events_[0].device, *observer->cachedDeviceForDeviceID(8));
  EXPECT_TRUE(events_[0].device.isConnected);
}

TEST_F(ObserverTest, FailedRunningQueryStoresFalseAndSendsChangedRunning) {
  script_->setDevice(3, CompleteDevice("mic", true));
  script_->setConnectedDeviceIDs({3});
  auto observer = makeObserver();
  script_->editDevice(3, [](ScriptedDevice& d) { d.isRunning = std::nullopt; });
  onQueue([&] { observer->noteIsRunningChangedForDeviceID(3); });
  ASSERT_EQ(events_.size(), 1u);
  EXPECT_EQ(events_[0].event, MediaDeviceEvent::ChangedRunning);
  EXPECT_FALSE(events_[0].device.isRunning);
  EXPECT_FALSE(observer->cachedDeviceForDeviceID(3)->isRunning);
}

TEST_F(ObserverTest, FailedInputSourceQueryChangesNothingAndSendsNothing) {
  auto device = CompleteDevice("mic");
  device.inputSourceName = "Internal";
  script_->setDevice(3, device);
  script_->setConnectedDeviceIDs({3});
  auto observer = makeObserver();
  script_->editDevice(3, [](ScriptedDevice& d) { d.inputSourceName = std::nullopt; });
  onQueue([&] { observer->noteSelectedInputSourceChangedForDeviceID(3); });
  EXPECT_TRUE(events_.empty());
  EXPECT_EQ(observer->cachedDeviceForDeviceID(3)->inputSourceName, "Internal");
}

TEST_F(ObserverTest, InputSourceChangePatchesTheCacheAndReportsIt) {
  script_->setDevice(3, CompleteDevice("mic"));
  script_->setConnectedDeviceIDs({3});
  auto observer = makeObserver();
  script_->editDevice(3, [](ScriptedDevice& d) { d.inputSourceName = "Line In"; });
  onQueue([&] { observer->noteSelectedInputSourceChangedForDeviceID(3); });
  ASSERT_EQ(events_.size(), 1u);
  EXPECT_EQ(events_[0].event, MediaDeviceEvent::ChangedInputSource);
  EXPECT_EQ(events_[0].device.inputSourceName, "Line In");
  EXPECT_EQ(observer->cachedDeviceForDeviceID(3)->inputSourceName, "Line In");
}

TEST_F(ObserverTest, TwoRunningNotesWithoutChangeSendTwoEqualEvents) {
  script_->setDevice(3, CompleteDevice("mic", true));
  script_->setConnectedDeviceIDs({3});
  auto observer = makeObserver();
  onQueue([&] {
    observer->noteIsRunningChangedForDeviceID(3);
    observer->noteIsRunningChangedForDeviceID(3);
  });
  ASSERT_EQ(events_.size(), 2u);
  EXPECT_EQ(events_[0].event, MediaDeviceEvent::ChangedRunning);
  EXPECT_EQ(events_[1].event, MediaDeviceEvent::ChangedRunning);
  EXPECT_EQ(events_[0].device, events_[1].device);
}

TEST_F(ObserverTest, NotesForAnUncachedDeviceAskNothingAndSendNothing) {
  auto observer = makeObserver();
  script_->clearCalls();
  onQueue([&] {
    observer->noteIsRunningChangedForDeviceID(77);
    observer->noteSelectedInputSourceChangedForDeviceID(77);
  });
  EXPECT_TRUE(events_.empty());
  EXPECT_TRUE(script_->calls().empty());
}

TEST_F(ObserverTest, WithoutEventHandlerTheCacheStillChangesAndBracketsStillCome) {
  auto observer = makeObserver();
  observer->setDeviceEventHandler(nullptr);
  script_->setDevice(4, CompleteDevice("mic"));
  script_->setConnectedDeviceIDs({4});
  noteListChanged(observer);
  EXPECT_TRUE(events_.empty());
  EXPECT_EQ(brackets_, (std::vector<bool>{false, true}));
  EXPECT_TRUE(observer->cachedDeviceForDeviceID(4));
}

TEST_F(ObserverTest, CallbacksRunOnTheEventHandlerQueue) {
  auto observer = makeObserver();
  bool allOnQueue = true;
  observer->setUpdatingDevicesHandler(
      [&](MediaDeviceObserver&, bool) { allOnQueue = allOnQueue && queue_->isCurrent(); });
  observer->setDeviceEventHandler(
      [&](MediaDeviceObserver& source, MediaDeviceEvent, const MediaDevice&) {
        allOnQueue = allOnQueue && queue_->isCurrent() && &source == observer.get();
      });
  script_->setDevice(4, CompleteDevice("mic"));
  script_->setConnectedDeviceIDs({4});
  noteListChanged(observer);
  EXPECT_TRUE(allOnQueue);
}

TEST_F(ObserverTest, PollingIntervalIsFiveSeconds) {
  auto observer = makeObserver();
  EXPECT_EQ(observer->devicePropertiesPollingInterval(), 5.0);
  EXPECT_EQ(observer->deviceEventHandlerQueue(), queue_);
}

TEST_F(ObserverTest, TeardownRunsTheSubclassStopHooksInOrder) {
  auto observer = makeObserver();
  script_->clearCalls();
  observer.reset();
  DrainQueue(queue_);
  EXPECT_EQ(script_->calls(), (std::vector<std::string>{"stopObservingConnectedDevices()",
                                                        "stopObservingPropertiesForAllDevices()"}));
}

TEST_F(ObserverTest, InitialFillKeepsTheObserverAliveUntilItRan) {
  script_->setDevice(3, CompleteDevice("mic"));
  script_->setConnectedDeviceIDs({3});
  std::promise<void> release;
  queue_->async([gate = release.get_future().share()] { gate.wait(); });
  std::weak_ptr<ScriptedDeviceObserver> weak = ScriptedDeviceObserver::create(queue_, script_);
  EXPECT_FALSE(weak.expired()) << "the queued fill holds the observer";
  release.set_value();
  DrainQueue(queue_);
  EXPECT_TRUE(weak.expired());
  const auto calls = script_->calls();
  EXPECT_EQ(calls.front(), "connectedDeviceIDs()");
  EXPECT_EQ(calls.back(), "stopObservingPropertiesForAllDevices()");
}

// An observer that provides none of the operations a subclass must.
class BareObserver final : public MediaDeviceObserver {
 public:
  BareObserver() : MediaDeviceObserver(DispatchQueue::createSerial("bare")) {}
};

class AbstractOperationDeathTest : public ::testing::Test {
 protected:
  void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

TEST_F(AbstractOperationDeathTest, EveryDeviceSourceQueryOfTheBaseStopsTheProgram) {
  EXPECT_DEATH(BareObserver().mediaType(), "");
  EXPECT_DEATH(BareObserver().connectedDeviceIDs(), "");
  EXPECT_DEATH(BareObserver().deviceNameForDeviceID(1), "");
  EXPECT_DEATH(BareObserver().deviceInputSourceNameForDeviceID(1), "");
  EXPECT_DEATH(BareObserver().deviceUIDForDeviceID(1), "");
  EXPECT_DEATH(BareObserver().deviceChannelCountsForDeviceID(1), "");
  EXPECT_DEATH(BareObserver().deviceIsRunningForDeviceID(1), "");
  EXPECT_DEATH(BareObserver().deviceModelUIDForDeviceID(1), "");
  EXPECT_DEATH(BareObserver().deviceTransportTypeForDeviceID(1), "");
}

TEST_F(AbstractOperationDeathTest, EveryObservationHookOfTheBaseStopsTheProgram) {
  EXPECT_DEATH(BareObserver().startObservingConnectedDevices(), "");
  EXPECT_DEATH(BareObserver().stopObservingConnectedDevices(), "");
  EXPECT_DEATH(BareObserver().startObservingPropertiesForDeviceID(1), "");
  EXPECT_DEATH(BareObserver().stopObservingPropertiesForDeviceID(1), "");
  EXPECT_DEATH(BareObserver().stopObservingPropertiesForAllDevices(), "");
}

}  // namespace
}  // namespace harkwell
