// VideoDeviceObserver on the simulated video service: its device queries, its listener records
// (one device's stop keeps the entry, a second start of the device list keeps the first listener)
// and events end to end on a real serial queue.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "HarkwellFoundation/Platform/MainRunLoop.h"
#include "HarkwellFoundation/Platform/VideoHardwareConstants.h"
#include "HarkwellFoundation/Video/VideoDeviceObserver.h"
#include "HarkwellFoundation/Video/VideoDeviceProperties.h"
#include "tests/support/LogCapture.h"
#include "tests/support/ObserverFixture.h"
#include "tests/support/SimulatedServicesFixture.h"
#include "tests/support/Waiting.h"

namespace harkwell {
namespace {

using testing::CallsAt;
using testing::CallsOfKind;
using testing::DrainQueue;
using ::testing::ElementsAre;
using testing::GlobalAddress;
using ::testing::IsEmpty;
using testing::LogCapture;
using testing::OutputAddress;

constexpr ObjectID kCamera = 33;

const PropertyAddress kDevices = GlobalAddress(kCMIOHardwarePropertyDevices);
const PropertyAddress kRunning = GlobalAddress(kCMIODevicePropertyDeviceIsRunningSomewhere);
const PropertyAddress kOutputStreams = OutputAddress(kCMIODevicePropertyStreams);

SimulatedVideoDevice Camera(ObjectID id, std::uint32_t transport = kVideoTransportTypeUSB) {
  return SimulatedVideoDevice{.deviceID = id,
                              .name = "Camera " + std::to_string(id),
                              .deviceUID = "cam-" + std::to_string(id),
                              .modelUID = "model-" + std::to_string(id),
                              .transportType = transport,
                              .inputStreamCount = 1,
                              .outputStreamCount = 0};
}

class VideoObserverTest : public testing::ObserverTest {
 protected:
  std::shared_ptr<VideoDeviceObserver> MakeObserver() {
    return ObserverTest::MakeObserver<VideoDeviceObserver>();
  }
};

// --- Device queries ------------------------------------------------------------------------------

TEST_F(VideoObserverTest, DeviceQueriesAnswerFromTheVideoProperties) {
  SimulatedVideoDevice camera = Camera(kCamera, kVideoTransportTypeBuiltIn);
  camera.modelUID = "model";
  camera.isRunning = true;
  video->addDevice(camera);
  auto observer = MakeObserver();

  EXPECT_EQ(observer->mediaType(), MediaType::Video);
  EXPECT_THAT(observer->connectedDeviceIDs(), ElementsAre(kCamera));
  EXPECT_EQ(video->screenCaptureSwitch(), 1u);
  EXPECT_EQ(observer->deviceNameForDeviceID(kCamera), "Camera 33");
  EXPECT_EQ(observer->deviceUIDForDeviceID(kCamera), "cam-33");
  EXPECT_EQ(observer->deviceModelUIDForDeviceID(kCamera), "model");
  EXPECT_EQ(observer->deviceChannelCountsForDeviceID(kCamera),
            (MediaDeviceChannelCounts{.inputCount = 1, .outputCount = 0}));
  EXPECT_EQ(observer->deviceIsRunningForDeviceID(kCamera), true);
  EXPECT_EQ(observer->deviceTransportTypeForDeviceID(kCamera), MediaDeviceTransportType::BuiltIn);

  const auto cached = observer->cachedDeviceForDeviceID(kCamera);
  ASSERT_TRUE(cached.has_value());
  EXPECT_EQ(cached->mediaType, MediaType::Video);
  EXPECT_EQ(cached->inputSourceName, std::nullopt);
  EXPECT_TRUE(cached->isSupported());
}

TEST_F(VideoObserverTest, ListingAlwaysIncludesScreenCaptureDevices) {
  auto observer = MakeObserver();
  VideoDeviceConnectedDeviceIDs(false);
  ASSERT_EQ(video->screenCaptureSwitch(), 0u);
  observer->connectedDeviceIDs();
  EXPECT_EQ(video->screenCaptureSwitch(), 1u);
}

TEST_F(VideoObserverTest, InputSourceNameIsAbsentForAnyIDWithoutAPlatformCall) {
  video->addDevice(Camera(kCamera));
  auto observer = MakeObserver();
  video->clearCalls();
  for (std::uint32_t id : {0u, 1u, kCamera, 99u}) {
    EXPECT_EQ(observer->deviceInputSourceNameForDeviceID(id), std::nullopt);
  }
  EXPECT_THAT(video->calls(), IsEmpty());
}

TEST_F(VideoObserverTest, UnreadableTransportTypeIsUnknown) {
  video->addDevice(Camera(kCamera, kVideoTransportTypeUSB));
  auto observer = MakeObserver();
  video->addFailure(SimulatedFailure{.kind = SimulatedCallKind::GetPropertyData,
                                     .object = kCamera,
                                     .selector = kCMIODevicePropertyTransportType,
                                     .status = -50});
  EXPECT_EQ(observer->deviceTransportTypeForDeviceID(kCamera), MediaDeviceTransportType::Unknown);
}

TEST_F(VideoObserverTest, ReadableInputButUnreadableOutputStreamsGiveNoCounts) {
  video->addDevice(Camera(kCamera));
  auto observer = MakeObserver();
  video->addFailure(SimulatedFailure{.kind = SimulatedCallKind::GetPropertyDataSize,
                                     .object = kCamera,
                                     .selector = kCMIODevicePropertyStreams,
                                     .scope = kCMIODevicePropertyScopeOutput,
                                     .status = -50});
  EXPECT_EQ(observer->deviceChannelCountsForDeviceID(kCamera), std::nullopt);
}

TEST_F(VideoObserverTest, UnreadableInputStreamsSkipTheOutputQuery) {
  video->addDevice(Camera(kCamera));
  auto observer = MakeObserver();
  video->addFailure(SimulatedFailure{.kind = SimulatedCallKind::GetPropertyDataSize,
                                     .object = kCamera,
                                     .selector = kCMIODevicePropertyStreams,
                                     .scope = kCMIODevicePropertyScopeInput,
                                     .status = -50});
  video->clearCalls();
  EXPECT_EQ(observer->deviceChannelCountsForDeviceID(kCamera), std::nullopt);
  EXPECT_THAT(
      CallsAt(video->calls(), SimulatedCallKind::GetPropertyDataSize, kCamera, kOutputStreams),
      IsEmpty());
}

// --- Listener records ----------------------------------------------------------------------------

TEST_F(VideoObserverTest, StoppingOneDeviceKeepsItsEntryAndStoppingAllEmptiesTheMap) {
  video->addDevice(Camera(kCamera));
  video->addDevice(Camera(34));
  auto observer = MakeObserver();
  observer->startObservingPropertiesForDeviceID(kCamera);
  observer->startObservingPropertiesForDeviceID(34);
  ASSERT_EQ(observer->deviceIsRunningObserverCountForTesting(), 2u);

  observer->stopObservingPropertiesForDeviceID(kCamera);
  EXPECT_EQ(observer->deviceIsRunningObserverCountForTesting(), 2u);
  EXPECT_EQ(video->listenerCount(kCamera, kRunning), 0u);
  EXPECT_EQ(video->listenerCount(34, kRunning), 1u);

  // A later start overwrites the kept entry.
  observer->startObservingPropertiesForDeviceID(kCamera);
  EXPECT_EQ(observer->deviceIsRunningObserverCountForTesting(), 2u);
  EXPECT_EQ(video->listenerCount(kCamera, kRunning), 1u);

  observer->stopObservingPropertiesForAllDevices();
  EXPECT_EQ(observer->deviceIsRunningObserverCountForTesting(), 0u);
  EXPECT_EQ(video->listenerCount(), 0u);
}

TEST_F(VideoObserverTest, StoppingAllRemovesEvenAnAlreadyStoppedDeviceAgain) {
  video->addDevice(Camera(kCamera));
  auto observer = MakeObserver();
  observer->startObservingPropertiesForDeviceID(kCamera);
  observer->stopObservingPropertiesForDeviceID(kCamera);
  observer->stopObservingPropertiesForAllDevices();

  // The kept entry is removed a second time, which the service refuses with "who?".
  const auto removes = CallsOfKind(video->calls(), SimulatedCallKind::RemovePropertyListener);
  ASSERT_EQ(removes.size(), 2u);
  EXPECT_EQ(removes[1].closure, removes[0].closure);
  EXPECT_THAT(log.lines(), ElementsAre("Video Error 2003332927: Unable to unregister for property "
                                       "changes of device with ID 33"));
}

TEST_F(VideoObserverTest, StartingConnectedObservationTwiceKeepsTheSecondRecord) {
  auto observer = MakeObserver();
  observer->startObservingConnectedDevices();
  observer->startObservingConnectedDevices();
  EXPECT_EQ(video->listenerCount(kCMIOObjectSystemObject, kDevices), 2u);

  observer->stopObservingConnectedDevices();
  const auto adds = CallsOfKind(video->calls(), SimulatedCallKind::AddPropertyListener);
  const auto removes = CallsOfKind(video->calls(), SimulatedCallKind::RemovePropertyListener);
  ASSERT_EQ(adds.size(), 2u);
  ASSERT_EQ(removes.size(), 1u);
  EXPECT_EQ(removes[0].closure, adds[1].closure);
  // The first listener stays registered with the service.
  EXPECT_EQ(video->listenerCount(kCMIOObjectSystemObject, kDevices), 1u);
  EXPECT_FALSE(observer->isObservingConnectedDevicesForTesting());
}

TEST_F(VideoObserverTest, RefusedRegistrationsStoreNothing) {
  video->addDevice(Camera(kCamera));
  auto observer = MakeObserver();
  video->addFailure(SimulatedFailure{.kind = SimulatedCallKind::AddPropertyListener,
                                     .status = kCMIOHardwareBadObjectError});
  observer->startObservingConnectedDevices();
  observer->startObservingPropertiesForDeviceID(kCamera);
  EXPECT_FALSE(observer->isObservingConnectedDevicesForTesting());
  EXPECT_EQ(observer->deviceIsRunningObserverCountForTesting(), 0u);
  EXPECT_THAT(log.lines(), IsEmpty());

  video->clearCalls();
  observer->stopObservingConnectedDevices();
  observer->stopObservingPropertiesForDeviceID(kCamera);
  EXPECT_THAT(video->calls(), IsEmpty());
}

TEST_F(VideoObserverTest, NoVideoDeviceIsPolledNotEvenBluetooth) {
  video->addDevice(Camera(kCamera, kVideoTransportTypeBluetooth));
  auto observer = MakeObserver();
  const std::size_t timersBefore = MainRunLoop::shared().scheduledTimerCountForTesting();
  observer->startObservingPropertiesForDeviceID(kCamera);
  EXPECT_EQ(observer->pollingHandlerCountForTesting(), 0u);
  EXPECT_EQ(observer->devicePropertiesPollingTimerForTesting(), nullptr);
  EXPECT_EQ(MainRunLoop::shared().scheduledTimerCountForTesting(), timersBefore);
  // Only the running-state listener is registered.
  EXPECT_EQ(CallsOfKind(video->calls(), SimulatedCallKind::AddPropertyListener).size(), 1u);
}

// --- End to end ----------------------------------------------------------------------------------

TEST_F(VideoObserverTest, ReportsConnectsRunningAndDisconnectsButNeverInputSources) {
  auto observer = MakeObserver();
  observer->startObservingConnectedDevices();

  video->addDevice(Camera(kCamera));
  ASSERT_TRUE(events.waitForCount(1));
  queue->sync([&] { observer->startObservingPropertiesForDeviceID(kCamera); });
  video->setDeviceRunning(kCamera, true);
  ASSERT_TRUE(events.waitForCount(2));
  // An input-source note has nothing to read for a camera and sends nothing.
  queue->sync([&] { observer->noteSelectedInputSourceChangedForDeviceID(kCamera); });
  video->setDeviceRunning(kCamera, false);
  ASSERT_TRUE(events.waitForCount(3));
  video->removeDevice(kCamera);
  ASSERT_TRUE(events.waitForCount(4));
  queue->sync([&] { observer->stopObservingPropertiesForDeviceID(kCamera); });
  DrainQueue(queue);

  const auto entries = events.entries();
  ASSERT_EQ(entries.size(), 4u);
  EXPECT_EQ(entries[0].event, MediaDeviceEvent::Connected);
  EXPECT_EQ(entries[1].event, MediaDeviceEvent::ChangedRunning);
  EXPECT_TRUE(entries[1].device.isRunning);
  EXPECT_EQ(entries[2].event, MediaDeviceEvent::ChangedRunning);
  EXPECT_FALSE(entries[2].device.isRunning);
  EXPECT_EQ(entries[3].event, MediaDeviceEvent::Disconnected);
  EXPECT_FALSE(entries[3].device.isConnected);
  for (const auto& entry : entries) {
    EXPECT_TRUE(entry.onQueue);
    EXPECT_EQ(entry.device.mediaType, MediaType::Video);
    EXPECT_NE(entry.event, MediaDeviceEvent::ChangedInputSource);
  }
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(VideoObserverTest, NotificationQueuedAfterTheObserverIsGoneDoesNothing) {
  video->setListenerMatching(ListenerMatching::ByBlockIdentity);
  video->addDevice(Camera(kCamera));
  {
    auto observer = MakeObserver();
    observer->startObservingConnectedDevices();
    observer->startObservingPropertiesForDeviceID(kCamera);
  }
  ASSERT_EQ(video->listenerCount(), 2u);
  video->setDeviceRunning(kCamera, true);
  video->addDevice(Camera(34));
  DrainQueue(queue);
  EXPECT_EQ(events.size(), 0u);
}

TEST_F(VideoObserverTest, CameraThatVanishesDuringItsBuildIsSkippedSilently) {
  auto observer = MakeObserver();
  observer->startObservingConnectedDevices();
  video->addFailure(SimulatedFailure{.object = kCamera, .status = kCMIOHardwareBadObjectError});

  video->addDevice(Camera(kCamera));
  video->addDevice(Camera(34));
  ASSERT_TRUE(events.waitForCount(1));
  DrainQueue(queue);
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events.entries()[0].device.deviceID, 34u);
  for (const auto& line : log.lines()) {
    EXPECT_EQ(line.rfind("Video Error", 0), std::string::npos) << line;
  }
}

}  // namespace
}  // namespace harkwell
