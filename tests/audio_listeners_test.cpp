// The audio listener registry: which object and address each listener is registered on, with
// which queue and block, how a removal is asked for (always with a new block around the same
// closure), and the lines a refused registration or removal writes.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <type_traits>

#include "HarkwellFoundation/Audio/AudioDevicePropertyListeners.h"
#include "HarkwellFoundation/Platform/AudioHardwareConstants.h"
#include "tests/support/LogCapture.h"
#include "tests/support/SimulatedServicesFixture.h"
#include "tests/support/Waiting.h"

namespace harkwell {
namespace {

using testing::CallsOfKind;
using testing::DrainQueue;
using ::testing::ElementsAre;
using testing::GlobalAddress;
using testing::InputAddress;
using ::testing::IsEmpty;
using testing::LogCapture;
using testing::Recorder;

constexpr ObjectID kMic = 73;

const PropertyAddress kDevices = GlobalAddress(kAudioHardwarePropertyDevices);
const PropertyAddress kRunning = GlobalAddress(kAudioDevicePropertyDeviceIsRunningSomewhere);
const PropertyAddress kDataSource = InputAddress(kAudioDevicePropertyDataSource);

class AudioListenersTest : public testing::SimulatedServicesTest {
 protected:
  void SetUp() override {
    SimulatedServicesTest::SetUp();
    audio->addDevice(SimulatedAudioDevice{.deviceID = kMic,
                                          .name = "Microphone",
                                          .deviceUID = "mic",
                                          .selectedDataSource = 1,
                                          .dataSourceNames = {{1, "Front"}, {2, "Back"}}});
    audio->clearCalls();
  }
  void TearDown() override {
    DrainQueue(queue);
    SimulatedServicesTest::TearDown();
  }

  // A callback that records the device it was made for, and whether it ran on `queue`.
  std::function<void()> RecordingCallback(ObjectID deviceID) {
    return [this, deviceID] { fired.append({deviceID, queue->isCurrent()}); };
  }

  struct Firing {
    ObjectID deviceID;
    bool onQueue;
  };

  const std::shared_ptr<DispatchQueue> queue = DispatchQueue::createSerial("test.audio-listeners");
  Recorder<Firing> fired;
  LogCapture log;
};

void ExpectRegistration(const SimulatedCall& call, ObjectID object, const PropertyAddress& address,
                        const std::shared_ptr<DispatchQueue>& queue,
                        const AudioDevicePropertyObserver& record) {
  EXPECT_EQ(call.object, object);
  EXPECT_EQ(call.address, address);
  EXPECT_EQ(call.queue, queue);
  EXPECT_NE(call.block, nullptr);
  EXPECT_EQ(call.closure, record.listenerBlock.get());
  EXPECT_EQ(call.status, kNoErr);
}

TEST_F(AudioListenersTest, ConnectedDevicesListenerIsOnTheSystemObjectWithTheGivenQueue) {
  auto record = AudioDeviceAddObserverForConnectedDevices(queue, RecordingCallback(1));
  ASSERT_TRUE(record.has_value());
  EXPECT_EQ(record->deviceID, kAudioObjectSystemObject);
  EXPECT_EQ(record->callbackQueue, queue);
  EXPECT_TRUE(record->callback);
  EXPECT_TRUE(record->listenerBlock);

  const auto adds = CallsOfKind(audio->calls(), SimulatedCallKind::AddPropertyListener);
  ASSERT_EQ(adds.size(), 1u);
  ExpectRegistration(adds[0], kAudioObjectSystemObject, kDevices, queue, *record);
  EXPECT_EQ(audio->listenerCount(kAudioObjectSystemObject, kDevices), 1u);
}

TEST_F(AudioListenersTest, RunningStateListenerIsOnTheDeviceInTheGlobalScope) {
  auto record = AudioDeviceAddObserverForDeviceIsRunning(kMic, queue, RecordingCallback(kMic));
  ASSERT_TRUE(record.has_value());
  EXPECT_EQ(record->deviceID, kMic);
  const auto adds = CallsOfKind(audio->calls(), SimulatedCallKind::AddPropertyListener);
  ASSERT_EQ(adds.size(), 1u);
  ExpectRegistration(adds[0], kMic, kRunning, queue, *record);
}

TEST_F(AudioListenersTest, SelectedInputSourceListenerIsOnTheDeviceInTheInputScope) {
  auto record = AudioDeviceAddObserverForSelectedInputSource(kMic, queue, RecordingCallback(kMic));
  ASSERT_TRUE(record.has_value());
  const auto adds = CallsOfKind(audio->calls(), SimulatedCallKind::AddPropertyListener);
  ASSERT_EQ(adds.size(), 1u);
  ExpectRegistration(adds[0], kMic, kDataSource, queue, *record);
}

TEST_F(AudioListenersTest, CallbackRunsOnTheGivenQueueOncePerNotification) {
  auto record = AudioDeviceAddObserverForDeviceIsRunning(kMic, queue, RecordingCallback(kMic));
  ASSERT_TRUE(record.has_value());

  audio->setDeviceRunning(kMic, true);
  ASSERT_TRUE(fired.waitForCount(1));
  EXPECT_TRUE(fired.entries()[0].onQueue);

  // A notification naming several changed addresses still calls back once.
  const PropertyAddress changed[] = {kRunning, kRunning, kRunning};
  queue->sync([&] { (*record->listenerBlock)(3, changed); });
  DrainQueue(queue);
  EXPECT_EQ(fired.size(), 2u);
}

TEST_F(AudioListenersTest, CallbackTakesNoArgumentsSoCallersCaptureTheDevice) {
  static_assert(
      std::is_same_v<decltype(AudioDevicePropertyObserver::callback), std::function<void()>>);
  audio->addDevice(SimulatedAudioDevice{.deviceID = 74, .name = "Other", .deviceUID = "other"});
  auto first = AudioDeviceAddObserverForDeviceIsRunning(kMic, queue, RecordingCallback(kMic));
  auto second = AudioDeviceAddObserverForDeviceIsRunning(74, queue, RecordingCallback(74));
  ASSERT_TRUE(first && second);

  audio->setDeviceRunning(74, true);
  ASSERT_TRUE(fired.waitForCount(1));
  DrainQueue(queue);
  ASSERT_EQ(fired.size(), 1u);
  EXPECT_EQ(fired.entries()[0].deviceID, 74u);
}

TEST_F(AudioListenersTest, RemovalAsksWithANewBlockAroundTheSameClosure) {
  auto record = AudioDeviceAddObserverForSelectedInputSource(kMic, queue, RecordingCallback(kMic));
  ASSERT_TRUE(record.has_value());

  EXPECT_TRUE(AudioDeviceRemoveObserverForSelectedInputSource(*record));

  const auto calls = audio->calls();
  const auto adds = CallsOfKind(calls, SimulatedCallKind::AddPropertyListener);
  const auto removes = CallsOfKind(calls, SimulatedCallKind::RemovePropertyListener);
  ASSERT_EQ(adds.size(), 1u);
  ASSERT_EQ(removes.size(), 1u);
  EXPECT_EQ(removes[0].object, kMic);
  EXPECT_EQ(removes[0].address, kDataSource);
  EXPECT_EQ(removes[0].queue, queue);
  EXPECT_NE(removes[0].block, nullptr);
  EXPECT_NE(removes[0].block, adds[0].block);
  EXPECT_EQ(removes[0].closure, adds[0].closure);
  EXPECT_EQ(audio->listenerCount(), 0u);
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(AudioListenersTest, RemovalFailsWhereTheServiceMatchesBlocksByIdentity) {
  audio->setListenerMatching(ListenerMatching::ByBlockIdentity);
  auto record = AudioDeviceAddObserverForConnectedDevices(queue, RecordingCallback(1));
  ASSERT_TRUE(record.has_value());

  EXPECT_FALSE(AudioDeviceRemoveObserverForConnectedDevices(*record));
  EXPECT_THAT(log.lines(), ElementsAre("Audio Error 2003332927: Unable to unregister for property "
                                       "changes of device with ID 1"));
  EXPECT_EQ(audio->listenerCount(kAudioObjectSystemObject, kDevices), 1u);
}

TEST_F(AudioListenersTest, EveryRemovalMatchesItsOwnAddress) {
  auto devices = AudioDeviceAddObserverForConnectedDevices(queue, RecordingCallback(1));
  auto running = AudioDeviceAddObserverForDeviceIsRunning(kMic, queue, RecordingCallback(kMic));
  auto source = AudioDeviceAddObserverForSelectedInputSource(kMic, queue, RecordingCallback(kMic));
  ASSERT_TRUE(devices && running && source);
  EXPECT_EQ(audio->listenerCount(), 3u);

  EXPECT_TRUE(AudioDeviceRemoveObserverForDeviceIsRunning(*running));
  EXPECT_EQ(audio->listenerCount(kMic, kRunning), 0u);
  EXPECT_TRUE(AudioDeviceRemoveObserverForConnectedDevices(*devices));
  EXPECT_EQ(audio->listenerCount(kAudioObjectSystemObject, kDevices), 0u);
  EXPECT_TRUE(AudioDeviceRemoveObserverForSelectedInputSource(*source));
  EXPECT_EQ(audio->listenerCount(), 0u);
}

TEST_F(AudioListenersTest, RegistrationForAGoneDeviceIsAbsentAndLogsNothing) {
  audio->removeDevice(kMic);
  EXPECT_EQ(AudioDeviceAddObserverForDeviceIsRunning(kMic, queue, RecordingCallback(kMic)),
            std::nullopt);
  EXPECT_EQ(AudioDeviceAddObserverForSelectedInputSource(kMic, queue, RecordingCallback(kMic)),
            std::nullopt);
  EXPECT_THAT(log.lines(), IsEmpty());
  EXPECT_EQ(audio->listenerCount(), 0u);
}

TEST_F(AudioListenersTest, RemovalForAGoneDeviceIsFalseAndLogsNothing) {
  auto record = AudioDeviceAddObserverForDeviceIsRunning(kMic, queue, RecordingCallback(kMic));
  ASSERT_TRUE(record.has_value());
  audio->removeDevice(kMic);
  EXPECT_FALSE(AudioDeviceRemoveObserverForDeviceIsRunning(*record));
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(AudioListenersTest, RefusedRegistrationLogsTheStatusAndYieldsNoRecordToRemove) {
  audio->addFailure(SimulatedFailure{
      .kind = SimulatedCallKind::AddPropertyListener, .object = kMic, .status = -50});
  EXPECT_EQ(AudioDeviceAddObserverForDeviceIsRunning(kMic, queue, RecordingCallback(kMic)),
            std::nullopt);
  EXPECT_THAT(log.lines(), ElementsAre("Audio Error -50: Unable to register for property changes "
                                       "of device with ID 73"));
  EXPECT_EQ(audio->listenerCount(), 0u);
  EXPECT_THAT(CallsOfKind(audio->calls(), SimulatedCallKind::RemovePropertyListener), IsEmpty());
}

TEST_F(AudioListenersTest, SelectedInputSourceRegistrationChecksNoPropertyFirst) {
  // A device without sources; the platform refuses the listener with "who?".
  audio->addDevice(SimulatedAudioDevice{.deviceID = 80, .name = "Speaker", .deviceUID = "spk"});
  audio->addFailure(SimulatedFailure{.kind = SimulatedCallKind::AddPropertyListener,
                                     .object = 80,
                                     .selector = kAudioDevicePropertyDataSource,
                                     .status = kAudioHardwareUnknownPropertyError});
  audio->clearCalls();

  EXPECT_EQ(AudioDeviceAddObserverForSelectedInputSource(80, queue, RecordingCallback(80)),
            std::nullopt);
  EXPECT_THAT(log.lines(), ElementsAre("Audio Error 2003332927: Unable to register for property "
                                       "changes of device with ID 80"));
  const auto calls = audio->calls();
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_EQ(calls[0].kind, SimulatedCallKind::AddPropertyListener);
}

}  // namespace
}  // namespace harkwell
