// The video listener registry: the device-list and running-state listeners, the callback running
// once per notification on the given queue, and removals asked for with a new block each time.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "HarkwellFoundation/Platform/VideoHardwareConstants.h"
#include "HarkwellFoundation/Video/VideoDevicePropertyListeners.h"
#include "tests/support/LogCapture.h"
#include "tests/support/SimulatedServicesFixture.h"
#include "tests/support/Waiting.h"

namespace harkwell {
namespace {

using testing::CallsOfKind;
using testing::DrainQueue;
using ::testing::ElementsAre;
using testing::GlobalAddress;
using ::testing::IsEmpty;
using testing::LogCapture;
using testing::Recorder;

constexpr ObjectID kCamera = 7;

const PropertyAddress kDevices = GlobalAddress(kCMIOHardwarePropertyDevices);
const PropertyAddress kRunning = GlobalAddress(kCMIODevicePropertyDeviceIsRunningSomewhere);

class VideoListenersTest : public testing::SimulatedServicesTest {
 protected:
  void SetUp() override {
    SimulatedServicesTest::SetUp();
    video->addDevice(SimulatedVideoDevice{.deviceID = kCamera, .name = "Cam", .deviceUID = "cam"});
    video->clearCalls();
  }
  void TearDown() override {
    DrainQueue(queue);
    SimulatedServicesTest::TearDown();
  }

  std::function<void()> Callback() {
    return [this] { fired.append(queue->isCurrent()); };
  }

  const std::shared_ptr<DispatchQueue> queue = DispatchQueue::createSerial("test.video-listeners");
  Recorder<bool> fired;  // whether each call ran on `queue`
  LogCapture log;
};

TEST_F(VideoListenersTest, ConnectedDevicesListenerIsOnTheSystemObject) {
  auto record = VideoDeviceAddObserverForConnectedDevices(queue, Callback());
  ASSERT_TRUE(record.has_value());
  EXPECT_EQ(record->deviceID, kCMIOObjectSystemObject);
  EXPECT_EQ(record->callbackQueue, queue);

  const auto adds = CallsOfKind(video->calls(), SimulatedCallKind::AddPropertyListener);
  ASSERT_EQ(adds.size(), 1u);
  EXPECT_EQ(adds[0].object, kCMIOObjectSystemObject);
  EXPECT_EQ(adds[0].address, kDevices);
  EXPECT_EQ(adds[0].queue, queue);
  EXPECT_EQ(adds[0].closure, record->listenerBlock.get());

  video->addDevice(SimulatedVideoDevice{.deviceID = 8, .name = "Other", .deviceUID = "other"});
  ASSERT_TRUE(fired.waitForCount(1));
  EXPECT_TRUE(fired.entries()[0]);
}

TEST_F(VideoListenersTest, RunningStateListenerIsOnTheDevice) {
  auto record = VideoDeviceAddObserverForDeviceIsRunning(kCamera, queue, Callback());
  ASSERT_TRUE(record.has_value());
  EXPECT_EQ(record->deviceID, kCamera);
  const auto adds = CallsOfKind(video->calls(), SimulatedCallKind::AddPropertyListener);
  ASSERT_EQ(adds.size(), 1u);
  EXPECT_EQ(adds[0].object, kCamera);
  EXPECT_EQ(adds[0].address, kRunning);
  EXPECT_EQ(adds[0].queue, queue);
}

TEST_F(VideoListenersTest, CallbackRunsOncePerNotificationWhateverTheAddressCount) {
  auto record = VideoDeviceAddObserverForDeviceIsRunning(kCamera, queue, Callback());
  ASSERT_TRUE(record.has_value());

  video->setDeviceRunning(kCamera, true);
  ASSERT_TRUE(fired.waitForCount(1));

  const PropertyAddress changed[] = {kRunning, kDevices, kRunning, kDevices};
  queue->sync([&] { (*record->listenerBlock)(4, changed); });
  queue->sync([&] { (*record->listenerBlock)(0, nullptr); });
  DrainQueue(queue);
  EXPECT_THAT(fired.entries(), ElementsAre(true, true, true));
}

TEST_F(VideoListenersTest, RemovingAValueThatWasNeverRegisteredIsFalseAndLogged) {
  const std::function<void()> callback = [] {};
  const VideoDevicePropertyObserver neverRegistered{
      .deviceID = kCamera,
      .callback = callback,
      .callbackQueue = queue,
      .listenerBlock = std::make_shared<const PropertyListener>(
          [callback](std::uint32_t, const PropertyAddress*) { callback(); }),
  };
  EXPECT_FALSE(VideoDeviceRemoveObserverForDeviceIsRunning(neverRegistered));
  EXPECT_THAT(log.lines(), ElementsAre("Video Error 2003332927: Unable to unregister for property "
                                       "changes of device with ID 7"));
}

TEST_F(VideoListenersTest, RemovalAsksWithANewBlockAroundTheSameClosure) {
  auto devices = VideoDeviceAddObserverForConnectedDevices(queue, Callback());
  auto running = VideoDeviceAddObserverForDeviceIsRunning(kCamera, queue, Callback());
  ASSERT_TRUE(devices && running);

  EXPECT_TRUE(VideoDeviceRemoveObserverForDeviceIsRunning(*running));
  EXPECT_TRUE(VideoDeviceRemoveObserverForConnectedDevices(*devices));

  const auto calls = video->calls();
  const auto adds = CallsOfKind(calls, SimulatedCallKind::AddPropertyListener);
  const auto removes = CallsOfKind(calls, SimulatedCallKind::RemovePropertyListener);
  ASSERT_EQ(adds.size(), 2u);
  ASSERT_EQ(removes.size(), 2u);
  EXPECT_EQ(removes[0].address, kRunning);
  EXPECT_EQ(removes[0].object, kCamera);
  EXPECT_EQ(removes[0].closure, adds[1].closure);
  EXPECT_NE(removes[0].block, adds[1].block);
  EXPECT_EQ(removes[1].address, kDevices);
  EXPECT_EQ(removes[1].object, kCMIOObjectSystemObject);
  EXPECT_EQ(removes[1].closure, adds[0].closure);
  EXPECT_NE(removes[1].block, adds[0].block);
  EXPECT_EQ(video->listenerCount(), 0u);
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(VideoListenersTest, RemovalFailsWhereTheServiceMatchesBlocksByIdentity) {
  video->setListenerMatching(ListenerMatching::ByBlockIdentity);
  auto running = VideoDeviceAddObserverForDeviceIsRunning(kCamera, queue, Callback());
  ASSERT_TRUE(running.has_value());
  EXPECT_FALSE(VideoDeviceRemoveObserverForDeviceIsRunning(*running));
  EXPECT_THAT(log.lines(), ElementsAre("Video Error 2003332927: Unable to unregister for property "
                                       "changes of device with ID 7"));
  EXPECT_EQ(video->listenerCount(kCamera, kRunning), 1u);
}

TEST_F(VideoListenersTest, RegistrationForAGoneDeviceIsAbsentAndSilent) {
  EXPECT_EQ(VideoDeviceAddObserverForDeviceIsRunning(99, queue, Callback()), std::nullopt);
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(VideoListenersTest, RefusedRegistrationIsAbsentAndLogged) {
  video->addFailure(SimulatedFailure{.kind = SimulatedCallKind::AddPropertyListener,
                                     .object = kCMIOObjectSystemObject,
                                     .status = -50});
  EXPECT_EQ(VideoDeviceAddObserverForConnectedDevices(queue, Callback()), std::nullopt);
  EXPECT_THAT(log.lines(), ElementsAre("Video Error -50: Unable to register for property changes "
                                       "of device with ID 1"));
  EXPECT_EQ(video->listenerCount(), 0u);
}

}  // namespace
}  // namespace harkwell
