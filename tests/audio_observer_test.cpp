// AudioDeviceObserver on the simulated audio service: its device queries, its listeners and their
// deliberate asymmetries, the Bluetooth polling handler driven by the main run loop's manual clock,
// and end to end on a real serial queue.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>

#include "HarkwellFoundation/Audio/AudioDeviceObserver.h"
#include "HarkwellFoundation/Platform/AudioHardwareConstants.h"
#include "HarkwellFoundation/Platform/MainRunLoop.h"
#include "HarkwellFoundation/Platform/PlatformString.h"
#include "tests/support/LogCapture.h"
#include "tests/support/ObserverFixture.h"
#include "tests/support/SimulatedServicesFixture.h"
#include "tests/support/Waiting.h"

namespace harkwell {
namespace {

using namespace std::chrono_literals;
using testing::CallsAt;
using testing::CallsOfKind;
using testing::DrainQueue;
using ::testing::ElementsAre;
using testing::GlobalAddress;
using testing::InputAddress;
using ::testing::IsEmpty;
using testing::LogCapture;
using testing::OutputAddress;

constexpr ObjectID kMic = 73;
constexpr ObjectID kHeadset = 80;

const PropertyAddress kDevices = GlobalAddress(kAudioHardwarePropertyDevices);
const PropertyAddress kRunning = GlobalAddress(kAudioDevicePropertyDeviceIsRunningSomewhere);
const PropertyAddress kDataSource = InputAddress(kAudioDevicePropertyDataSource);
const PropertyAddress kInputStreams = InputAddress(kAudioDevicePropertyStreams);
const PropertyAddress kOutputStreams = OutputAddress(kAudioDevicePropertyStreams);

SimulatedAudioDevice Device(ObjectID id, std::uint32_t transport = kAudioDeviceTransportTypeUSB) {
  return SimulatedAudioDevice{
      .deviceID = id,
      .name = "Device " + std::to_string(id),
      .deviceUID = "uid-" + std::to_string(id),
      .modelUID = "model-" + std::to_string(id),
      .transportType = transport,
      .inputStreamCount = 1,
      .outputStreamCount = 0,
      .selectedDataSource = 1,
      .dataSourceNames = {{1, "Front"}, {2, "Back"}},
  };
}

class AudioObserverTest : public testing::ObserverTest {
 protected:
  template <class Observer = AudioDeviceObserver>
  std::shared_ptr<Observer> MakeObserver() {
    return ObserverTest::MakeObserver<Observer>();
  }

  // Runs one pass of the main loop (firing the timers that are due) and lets the queue finish the
  // work that pass handed it.
  void RunMainLoopOnce() {
    MainRunLoop::shared().runUntil([] { return true; }, 0ms);
    DrainQueue(queue);
  }
};

// An observer that records the polling registrations it is asked for.
class PollingSpyObserver : public AudioDeviceObserver {
 public:
  static std::shared_ptr<PollingSpyObserver> create(std::shared_ptr<DispatchQueue> queue) {
    return adopt(new PollingSpyObserver(std::move(queue)));
  }
  void addPollingHandlerForDeviceID(std::uint32_t deviceID, PollingHandler handler) override {
    std::lock_guard lock(mutex_);
    calls_.push_back("add " + std::to_string(deviceID));
    AudioDeviceObserver::addPollingHandlerForDeviceID(deviceID, std::move(handler));
  }
  void removePollingHandlerForDeviceID(std::uint32_t deviceID) override {
    {
      std::lock_guard lock(mutex_);
      calls_.push_back("remove " + std::to_string(deviceID));
    }
    AudioDeviceObserver::removePollingHandlerForDeviceID(deviceID);
  }
  std::vector<std::string> pollingCalls() const {
    std::lock_guard lock(mutex_);
    return calls_;
  }

 private:
  using AudioDeviceObserver::AudioDeviceObserver;
  mutable std::mutex mutex_;
  std::vector<std::string> calls_;
};

// --- Device queries ------------------------------------------------------------------------------

TEST_F(AudioObserverTest, DeviceQueriesAnswerFromTheAudioProperties) {
  SimulatedAudioDevice device = Device(kMic, kAudioDeviceTransportTypeBuiltIn);
  device.outputStreamCount = 2;
  device.isRunning = true;
  audio->addDevice(device);
  auto observer = MakeObserver();

  EXPECT_EQ(observer->mediaType(), MediaType::Audio);
  EXPECT_THAT(observer->connectedDeviceIDs(), ElementsAre(kMic));
  EXPECT_EQ(observer->deviceNameForDeviceID(kMic), "Device 73");
  EXPECT_EQ(observer->deviceUIDForDeviceID(kMic), "uid-73");
  EXPECT_EQ(observer->deviceModelUIDForDeviceID(kMic), "model-73");
  EXPECT_EQ(observer->deviceInputSourceNameForDeviceID(kMic), "Front");
  EXPECT_EQ(observer->deviceChannelCountsForDeviceID(kMic),
            (MediaDeviceChannelCounts{.inputCount = 1, .outputCount = 2}));
  EXPECT_EQ(observer->deviceIsRunningForDeviceID(kMic), true);
  EXPECT_EQ(observer->deviceTransportTypeForDeviceID(kMic), MediaDeviceTransportType::BuiltIn);

  // The initial fill cached the device from the same answers.
  const auto cached = observer->cachedDeviceForDeviceID(kMic);
  ASSERT_TRUE(cached.has_value());
  EXPECT_EQ(cached->name, "Device 73");
  EXPECT_EQ(cached->mediaType, MediaType::Audio);
  EXPECT_EQ(cached->inputSourceName, "Front");
  EXPECT_EQ(cached->unsupportedReason, MediaDeviceUnsupportedReason::InputAndOutputChannels);
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(AudioObserverTest, FailedInputStreamCountGivesNoCountsAndSkipsTheOutputCount) {
  audio->addDevice(Device(kMic));
  auto observer = MakeObserver();
  audio->addFailure(SimulatedFailure{.kind = SimulatedCallKind::GetPropertyDataSize,
                                     .object = kMic,
                                     .selector = kAudioDevicePropertyStreams,
                                     .scope = kAudioObjectPropertyScopeInput,
                                     .status = -50});
  audio->clearCalls();

  EXPECT_EQ(observer->deviceChannelCountsForDeviceID(kMic), std::nullopt);
  EXPECT_THAT(CallsAt(audio->calls(), SimulatedCallKind::GetPropertyDataSize, kMic, kOutputStreams),
              IsEmpty());
}

TEST_F(AudioObserverTest, FailedOutputStreamCountGivesNoCountsThoughInputsAreReadable) {
  audio->addDevice(Device(kMic));
  auto observer = MakeObserver();
  audio->addFailure(SimulatedFailure{.kind = SimulatedCallKind::GetPropertyDataSize,
                                     .object = kMic,
                                     .selector = kAudioDevicePropertyStreams,
                                     .scope = kAudioObjectPropertyScopeOutput,
                                     .status = -50});
  audio->clearCalls();

  EXPECT_EQ(observer->deviceChannelCountsForDeviceID(kMic), std::nullopt);
  EXPECT_EQ(
      CallsAt(audio->calls(), SimulatedCallKind::GetPropertyDataSize, kMic, kInputStreams).size(),
      1u);
}

TEST_F(AudioObserverTest, UnreadableTransportTypeIsUnknownNeverAbsent) {
  audio->addDevice(Device(kMic, kAudioDeviceTransportTypeBluetooth));
  auto observer = MakeObserver();
  audio->addFailure(SimulatedFailure{.kind = SimulatedCallKind::GetPropertyData,
                                     .object = kMic,
                                     .selector = kAudioDevicePropertyTransportType,
                                     .status = -50});
  EXPECT_EQ(observer->deviceTransportTypeForDeviceID(kMic), MediaDeviceTransportType::Unknown);
  EXPECT_THAT(log.lines(), ElementsAre("Audio Error -50: Unable to get transport type of device "
                                       "with ID 73"));
}

// --- Connected devices ---------------------------------------------------------------------------

TEST_F(AudioObserverTest, RefusedConnectedDevicesRegistrationLeavesTheFieldAbsent) {
  auto observer = MakeObserver();
  audio->addFailure(SimulatedFailure{.kind = SimulatedCallKind::AddPropertyListener,
                                     .object = kAudioObjectSystemObject,
                                     .status = -50});

  observer->startObservingConnectedDevices();
  EXPECT_FALSE(observer->isObservingConnectedDevicesForTesting());
  EXPECT_THAT(log.lines(), ElementsAre("Audio Error -50: Unable to register for property changes "
                                       "of device with ID 1"));

  // Stopping afterwards does nothing at all.
  audio->clearCalls();
  observer->stopObservingConnectedDevices();
  EXPECT_THAT(audio->calls(), IsEmpty());
}

TEST_F(AudioObserverTest, StartingConnectedDevicesTwiceKeepsTheSecondRecordOnly) {
  auto observer = MakeObserver();
  observer->startObservingConnectedDevices();
  observer->startObservingConnectedDevices();

  // The first listener was not removed when its record was replaced.
  EXPECT_EQ(audio->listenerCount(kAudioObjectSystemObject, kDevices), 2u);
  const auto adds = CallsOfKind(audio->calls(), SimulatedCallKind::AddPropertyListener);
  ASSERT_EQ(adds.size(), 2u);
  EXPECT_THAT(CallsOfKind(audio->calls(), SimulatedCallKind::RemovePropertyListener), IsEmpty());

  observer->stopObservingConnectedDevices();
  const auto removes = CallsOfKind(audio->calls(), SimulatedCallKind::RemovePropertyListener);
  ASSERT_EQ(removes.size(), 1u);
  EXPECT_EQ(removes[0].closure, adds[1].closure);
  EXPECT_FALSE(observer->isObservingConnectedDevicesForTesting());
  EXPECT_EQ(audio->listenerCount(kAudioObjectSystemObject, kDevices), 1u);
}

TEST_F(AudioObserverTest, StoppingConnectedDevicesForgetsTheRecordEvenWhenRemovalFails) {
  audio->setListenerMatching(ListenerMatching::ByBlockIdentity);
  auto observer = MakeObserver();
  observer->startObservingConnectedDevices();
  ASSERT_TRUE(observer->isObservingConnectedDevicesForTesting());

  observer->stopObservingConnectedDevices();
  EXPECT_FALSE(observer->isObservingConnectedDevicesForTesting());
  EXPECT_THAT(log.lines(), ElementsAre("Audio Error 2003332927: Unable to unregister for property "
                                       "changes of device with ID 1"));
}

// --- Per-device observation ----------------------------------------------------------------------

TEST_F(AudioObserverTest, StartingPropertiesTwiceLeavesOneRecordPerMap) {
  audio->addDevice(Device(kMic));
  auto observer = MakeObserver();

  observer->startObservingPropertiesForDeviceID(kMic);
  observer->startObservingPropertiesForDeviceID(kMic);

  EXPECT_EQ(observer->deviceIsRunningObserverCountForTesting(), 1u);
  EXPECT_EQ(observer->deviceSelectedInputSourceObserverCountForTesting(), 1u);
  // The replaced records' listeners stay registered.
  EXPECT_EQ(audio->listenerCount(kMic, kRunning), 2u);
  EXPECT_EQ(audio->listenerCount(kMic, kDataSource), 2u);

  observer->stopObservingPropertiesForDeviceID(kMic);
  EXPECT_EQ(observer->deviceIsRunningObserverCountForTesting(), 0u);
  EXPECT_EQ(observer->deviceSelectedInputSourceObserverCountForTesting(), 0u);
  EXPECT_EQ(audio->listenerCount(kMic, kRunning), 1u);
  EXPECT_EQ(audio->listenerCount(kMic, kDataSource), 1u);

  // What was removed is the second registration: the record kept is the newer one.
  for (const PropertyAddress& address : {kRunning, kDataSource}) {
    const auto calls = audio->calls();
    const auto adds = CallsAt(calls, SimulatedCallKind::AddPropertyListener, kMic, address);
    const auto removes = CallsAt(calls, SimulatedCallKind::RemovePropertyListener, kMic, address);
    ASSERT_EQ(adds.size(), 2u);
    ASSERT_EQ(removes.size(), 1u);
    EXPECT_EQ(removes[0].closure, adds[1].closure);
  }
}

TEST_F(AudioObserverTest, StartRegistersRunningThenInputSourceThenReadsTheTransport) {
  audio->addDevice(Device(kMic));
  auto observer = MakeObserver();
  audio->clearCalls();

  observer->startObservingPropertiesForDeviceID(kMic);

  const auto calls = audio->calls();
  ASSERT_EQ(calls.size(), 3u);
  EXPECT_EQ(calls[0].kind, SimulatedCallKind::AddPropertyListener);
  EXPECT_EQ(calls[0].address, kRunning);
  EXPECT_EQ(calls[0].queue, queue);
  EXPECT_EQ(calls[1].kind, SimulatedCallKind::AddPropertyListener);
  EXPECT_EQ(calls[1].address, kDataSource);
  EXPECT_EQ(calls[1].queue, queue);
  EXPECT_EQ(calls[2].kind, SimulatedCallKind::GetPropertyData);
  EXPECT_EQ(calls[2].address.mSelector, kAudioDevicePropertyTransportType);
  observer->stopObservingPropertiesForAllDevices();
}

TEST_F(AudioObserverTest, OnlyABluetoothDeviceGetsAPollingHandler) {
  MainRunLoop::shared().useManualClockForTesting();
  const std::pair<ObjectID, std::uint32_t> devices[] = {
      {kHeadset, kAudioDeviceTransportTypeBluetooth},
      {81, kAudioDeviceTransportTypeBluetoothLE},
      {82, kAudioDeviceTransportTypeUSB},
      {83, kAudioDeviceTransportTypeBuiltIn},
  };
  for (const auto& [id, transport] : devices) audio->addDevice(Device(id, transport));
  auto observer = MakeObserver<PollingSpyObserver>();

  for (const auto& [id, transport] : devices) observer->startObservingPropertiesForDeviceID(id);
  EXPECT_THAT(observer->pollingCalls(), ElementsAre("add 80"));
  EXPECT_EQ(observer->pollingHandlerCountForTesting(), 1u);
  EXPECT_NE(observer->devicePropertiesPollingTimerForTesting(), nullptr);

  // Stopping any device removes its polling handler, whatever its transport.
  for (const auto& [id, transport] : devices) observer->stopObservingPropertiesForDeviceID(id);
  EXPECT_THAT(observer->pollingCalls(),
              ElementsAre("add 80", "remove 80", "remove 81", "remove 82", "remove 83"));
  EXPECT_EQ(observer->pollingHandlerCountForTesting(), 0u);
  EXPECT_EQ(observer->devicePropertiesPollingTimerForTesting(), nullptr);
}

TEST_F(AudioObserverTest, StopAllVisitsOnlyDevicesWithARunningStateRecord) {
  MainRunLoop::shared().useManualClockForTesting();
  audio->addDevice(Device(kMic));
  audio->addDevice(Device(kHeadset, kAudioDeviceTransportTypeBluetooth));
  auto observer = MakeObserver();
  // The headset's running-state registration is refused; its input source and polling are not.
  audio->addFailure(SimulatedFailure{.kind = SimulatedCallKind::AddPropertyListener,
                                     .object = kHeadset,
                                     .selector = kAudioDevicePropertyDeviceIsRunningSomewhere,
                                     .status = -50});
  observer->startObservingPropertiesForDeviceID(kMic);
  observer->startObservingPropertiesForDeviceID(kHeadset);
  ASSERT_EQ(observer->deviceIsRunningObserverCountForTesting(), 1u);
  ASSERT_EQ(observer->deviceSelectedInputSourceObserverCountForTesting(), 2u);
  ASSERT_EQ(observer->pollingHandlerCountForTesting(), 1u);

  observer->stopObservingPropertiesForAllDevices();

  EXPECT_EQ(observer->deviceIsRunningObserverCountForTesting(), 0u);
  EXPECT_EQ(audio->listenerCount(kMic, kRunning), 0u);
  EXPECT_EQ(audio->listenerCount(kMic, kDataSource), 0u);
  // The headset was not visited.
  EXPECT_EQ(observer->deviceSelectedInputSourceObserverCountForTesting(), 1u);
  EXPECT_EQ(audio->listenerCount(kHeadset, kDataSource), 1u);
  EXPECT_EQ(observer->pollingHandlerCountForTesting(), 1u);

  observer->stopObservingPropertiesForDeviceID(kHeadset);
  EXPECT_EQ(observer->pollingHandlerCountForTesting(), 0u);
  EXPECT_EQ(audio->listenerCount(), 0u);
}

TEST_F(AudioObserverTest, TeardownRemovesEveryListenerItRegistered) {
  MainRunLoop::shared().useManualClockForTesting();
  audio->addDevice(Device(kMic));
  audio->addDevice(Device(kHeadset, kAudioDeviceTransportTypeBluetooth));
  {
    auto observer = MakeObserver();
    observer->startObservingConnectedDevices();
    observer->startObservingPropertiesForDeviceID(kMic);
    observer->startObservingPropertiesForDeviceID(kHeadset);
    ASSERT_EQ(audio->listenerCount(), 5u);
    // The polling timer holds the observer; only stopping the device releases it.
    observer->stopObservingPropertiesForDeviceID(kHeadset);
  }
  EXPECT_EQ(audio->listenerCount(), 0u);
  EXPECT_THAT(log.lines(), IsEmpty());
}

// --- End to end ----------------------------------------------------------------------------------

TEST_F(AudioObserverTest, ReportsConnectsRunningInputSourceAndDisconnectsOnItsQueue) {
  auto observer = MakeObserver();
  observer->startObservingConnectedDevices();

  audio->addDevice(Device(kMic));
  ASSERT_TRUE(events.waitForCount(1));
  // As the controller would: property observation starts on the queue when a device connects.
  queue->sync([&] { observer->startObservingPropertiesForDeviceID(kMic); });

  audio->setDeviceRunning(kMic, true);
  ASSERT_TRUE(events.waitForCount(2));
  audio->setSelectedDataSource(kMic, 2);
  ASSERT_TRUE(events.waitForCount(3));
  audio->removeDevice(kMic);
  ASSERT_TRUE(events.waitForCount(4));
  queue->sync([&] { observer->stopObservingPropertiesForDeviceID(kMic); });
  DrainQueue(queue);

  const auto entries = events.entries();
  EXPECT_THAT(EventKinds(),
              ElementsAre(MediaDeviceEvent::Connected, MediaDeviceEvent::ChangedRunning,
                          MediaDeviceEvent::ChangedInputSource, MediaDeviceEvent::Disconnected));
  for (const auto& entry : entries) {
    EXPECT_TRUE(entry.onQueue);
    EXPECT_EQ(entry.device.deviceID, kMic);
  }
  EXPECT_EQ(entries[0].device.name, "Device 73");
  EXPECT_FALSE(entries[0].device.isRunning);
  EXPECT_TRUE(entries[1].device.isRunning);
  EXPECT_EQ(entries[2].device.inputSourceName, "Back");
  EXPECT_FALSE(entries[3].device.isConnected);
  EXPECT_FALSE(entries[3].device.isRunning);
  EXPECT_EQ(entries[3].device.inputSourceName, "Back");
  EXPECT_EQ(observer->cachedDeviceForDeviceID(kMic), std::nullopt);
  // The gone device's listeners were dropped silently.
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(AudioObserverTest, BluetoothRunningStateIsPolledOnTheTimer) {
  MainRunLoop::shared().useManualClockForTesting();
  audio->addDevice(Device(kHeadset, kAudioDeviceTransportTypeBluetooth));
  auto observer = MakeObserver();
  observer->startObservingPropertiesForDeviceID(kHeadset);
  ASSERT_NE(observer->devicePropertiesPollingTimerForTesting(), nullptr);

  // The device starts without telling its listeners; only the poll can see it.
  audio->setProperty(kHeadset, kRunning, SimulatedPropertyValue::UInt32(1), /*notify=*/false);
  RunMainLoopOnce();
  EXPECT_EQ(events.size(), 0u);

  MainRunLoop::shared().advanceManualClockForTesting(5s);
  ASSERT_TRUE(MainRunLoop::shared().runUntil([&] { return events.size() >= 1; }, 10s));
  DrainQueue(queue);
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events.entries()[0].event, MediaDeviceEvent::ChangedRunning);
  EXPECT_TRUE(events.entries()[0].device.isRunning);
  EXPECT_TRUE(events.entries()[0].onQueue);

  // A poll that reads the cached state again sends nothing.
  MainRunLoop::shared().advanceManualClockForTesting(5s);
  RunMainLoopOnce();
  EXPECT_EQ(events.size(), 1u);

  observer->stopObservingPropertiesForDeviceID(kHeadset);
  EXPECT_EQ(observer->devicePropertiesPollingTimerForTesting(), nullptr);
}

TEST_F(AudioObserverTest, FailedPollReadCountsAsAChange) {
  MainRunLoop::shared().useManualClockForTesting();
  audio->addDevice(Device(kHeadset, kAudioDeviceTransportTypeBluetooth));
  auto observer = MakeObserver();
  observer->startObservingPropertiesForDeviceID(kHeadset);
  audio->addFailure(SimulatedFailure{.kind = SimulatedCallKind::GetPropertyData,
                                     .object = kHeadset,
                                     .selector = kAudioDevicePropertyDeviceIsRunningSomewhere,
                                     .status = -50});

  MainRunLoop::shared().advanceManualClockForTesting(5s);
  ASSERT_TRUE(MainRunLoop::shared().runUntil([&] { return events.size() >= 1; }, 10s));
  EXPECT_EQ(events.entries()[0].event, MediaDeviceEvent::ChangedRunning);
  EXPECT_FALSE(events.entries()[0].device.isRunning);
  observer->stopObservingPropertiesForDeviceID(kHeadset);
}

TEST_F(AudioObserverTest, BluetoothLEDeviceIsNotPolled) {
  MainRunLoop::shared().useManualClockForTesting();
  const std::size_t timersBefore = MainRunLoop::shared().scheduledTimerCountForTesting();
  audio->addDevice(Device(81, kAudioDeviceTransportTypeBluetoothLE));
  auto observer = MakeObserver();
  observer->startObservingPropertiesForDeviceID(81);
  EXPECT_EQ(observer->pollingHandlerCountForTesting(), 0u);
  EXPECT_EQ(MainRunLoop::shared().scheduledTimerCountForTesting(), timersBefore);

  audio->setProperty(81, kRunning, SimulatedPropertyValue::UInt32(1), /*notify=*/false);
  MainRunLoop::shared().advanceManualClockForTesting(5s);
  RunMainLoopOnce();
  MainRunLoop::shared().advanceManualClockForTesting(5s);
  RunMainLoopOnce();
  EXPECT_EQ(events.size(), 0u);
  EXPECT_EQ(observer->cachedDeviceForDeviceID(81)->isRunning, false);
  observer->stopObservingPropertiesForAllDevices();
}

TEST_F(AudioObserverTest, NotificationQueuedAfterTheObserverIsGoneDoesNothing) {
  // With removals matched by block identity the teardown cannot remove the listener, so the
  // platform keeps calling it after the observer is gone.
  audio->setListenerMatching(ListenerMatching::ByBlockIdentity);
  {
    auto observer = MakeObserver();
    observer->startObservingConnectedDevices();
  }
  ASSERT_EQ(audio->listenerCount(kAudioObjectSystemObject, kDevices), 1u);

  audio->addDevice(Device(kMic));
  DrainQueue(queue);
  EXPECT_EQ(events.size(), 0u);
}

// --- Bad input -----------------------------------------------------------------------------------

TEST_F(AudioObserverTest, DeviceThatVanishesDuringItsBuildIsSkippedWithoutAnErrorLine) {
  auto observer = MakeObserver();
  observer->startObservingConnectedDevices();
  // The device goes away right after the list was read, as its name is asked for.
  audio->setCallHook([this](const SimulatedCall& call) {
    if (call.kind == SimulatedCallKind::GetPropertyData && call.object == kMic &&
        call.address.mSelector == kAudioObjectPropertyName) {
      audio->removeObject(kMic);
    }
  });

  audio->addDevice(Device(kMic));
  audio->addDevice(Device(74));
  ASSERT_TRUE(events.waitForCount(1));
  DrainQueue(queue);
  audio->setCallHook(nullptr);

  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events.entries()[0].device.deviceID, 74u);
  EXPECT_EQ(observer->cachedDeviceForDeviceID(kMic), std::nullopt);
  for (const auto& line : log.lines()) {
    EXPECT_EQ(line.rfind("Audio Error", 0), std::string::npos) << line;
  }
}

TEST_F(AudioObserverTest, DeviceListWithAnOddSizeConnectsTheWholeIDsOnly) {
  auto observer = MakeObserver();
  // The devices exist before anyone listens; then the list changes with a 10-byte size.
  for (ObjectID id : {70u, 71u, 72u}) audio->addDevice(Device(id));
  observer->startObservingConnectedDevices();
  audio->setProperty(kAudioObjectSystemObject, kDevices,
                     SimulatedPropertyValue::IDList({70, 71, 72}).withReportedSize(10));
  ASSERT_TRUE(events.waitForCount(2));
  DrainQueue(queue);

  ASSERT_EQ(events.size(), 2u);
  EXPECT_EQ(events.entries()[0].device.deviceID, 70u);
  EXPECT_EQ(events.entries()[1].device.deviceID, 71u);
  EXPECT_EQ(observer->connectedDevices().size(), 2u);
}

TEST_F(AudioObserverTest, EmptyAndHostileNamesAreCachedAsGivenWithoutLeaks) {
  const std::size_t liveStrings = PlatformStringLiveCount();
  const std::string hostile = testing::HostileText();
  auto observer = MakeObserver();
  observer->startObservingConnectedDevices();

  SimulatedAudioDevice empty = Device(kMic);
  empty.name = "";
  SimulatedAudioDevice weird = Device(74);
  weird.name = hostile;
  weird.dataSourceNames = {{1, hostile}};
  audio->addDevice(empty);
  audio->addDevice(weird);
  ASSERT_TRUE(events.waitForCount(2));
  DrainQueue(queue);

  EXPECT_EQ(observer->cachedDeviceForDeviceID(kMic)->name, "");
  EXPECT_EQ(observer->cachedDeviceForDeviceID(74)->name, hostile);
  EXPECT_EQ(observer->cachedDeviceForDeviceID(74)->inputSourceName, hostile);
  EXPECT_THAT(log.lines(), IsEmpty());
  observer.reset();
  EXPECT_EQ(PlatformStringLiveCount(), liveStrings);
}

}  // namespace
}  // namespace harkwell
