// The video property reads: the screen-capture switch before every listing, the calls each read
// makes, the video transport table, and the exact failure lines ("!obj" always silent).
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "HarkwellFoundation/Platform/VideoHardwareConstants.h"
#include "HarkwellFoundation/Video/VideoDeviceProperties.h"
#include "tests/support/LogCapture.h"
#include "tests/support/SimulatedServicesFixture.h"

namespace harkwell {
namespace {

using testing::CallsAt;
using testing::CallsOfKind;
using ::testing::ElementsAre;
using testing::GlobalAddress;
using ::testing::IsEmpty;
using testing::LogCapture;

constexpr ObjectID kCamera = 33;

const PropertyAddress kDevices = GlobalAddress(kCMIOHardwarePropertyDevices);
const PropertyAddress kScreenCapture =
    GlobalAddress(kCMIOHardwarePropertyAllowScreenCaptureDevices);
const PropertyAddress kTransport = GlobalAddress(kCMIODevicePropertyTransportType);

SimulatedVideoDevice Camera(ObjectID id = kCamera) {
  return SimulatedVideoDevice{.deviceID = id,
                              .name = "FaceTime Camera",
                              .deviceUID = "cam-uid",
                              .modelUID = "cam-model",
                              .transportType = kVideoTransportTypeBuiltIn};
}

std::uint32_t UInt32Of(const std::vector<std::uint8_t>& bytes) {
  std::uint32_t value = 0;
  if (bytes.size() == sizeof value) std::memcpy(&value, bytes.data(), sizeof value);
  return value;
}

// Reads shared with the audio back end are tested in backend_properties_test.cpp.
class VideoPropertiesTest : public testing::SimulatedServicesTest {
 protected:
  void SetUp() override {
    SimulatedServicesTest::SetUp();
    video->addDevice(Camera());
    video->clearCalls();
  }

  void Fail(SimulatedCallKind kind, ObjectID object, std::uint32_t selector, OSStatus status) {
    video->addFailure(
        SimulatedFailure{.kind = kind, .object = object, .selector = selector, .status = status});
  }

  testing::PlatformStringLeakCheck leakCheck;
  LogCapture log;
};

// --- Device list ---------------------------------------------------------------------------------

TEST_F(VideoPropertiesTest, ListingSetsTheScreenCaptureSwitchThenSizesThenReads) {
  video->addDevice(Camera(34));
  video->clearCalls();

  EXPECT_THAT(VideoDeviceConnectedDeviceIDs(), ElementsAre(kCamera, 34u));

  const auto calls = video->calls();
  ASSERT_EQ(calls.size(), 3u);
  EXPECT_EQ(calls[0].kind, SimulatedCallKind::SetPropertyData);
  EXPECT_EQ(calls[0].object, kCMIOObjectSystemObject);
  EXPECT_EQ(calls[0].address, kScreenCapture);
  EXPECT_EQ(calls[0].qualifierDataSize, 0u);
  EXPECT_EQ(calls[0].dataSize, 4u);
  EXPECT_EQ(UInt32Of(calls[0].data), 1u);
  EXPECT_EQ(calls[1].kind, SimulatedCallKind::GetPropertyDataSize);
  EXPECT_EQ(calls[1].object, kCMIOObjectSystemObject);
  EXPECT_EQ(calls[1].address, kDevices);
  EXPECT_EQ(calls[2].kind, SimulatedCallKind::GetPropertyData);
  EXPECT_EQ(calls[2].object, kCMIOObjectSystemObject);
  EXPECT_EQ(calls[2].address, kDevices);
  EXPECT_EQ(calls[2].dataSize, 8u);
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(VideoPropertiesTest, ScreenCaptureSwitchFollowsTheArgumentOnEveryCall) {
  VideoDeviceConnectedDeviceIDs(false);
  EXPECT_EQ(video->screenCaptureSwitch(), 0u);
  VideoDeviceConnectedDeviceIDs(true);
  EXPECT_EQ(video->screenCaptureSwitch(), 1u);
  VideoDeviceConnectedDeviceIDs();
  EXPECT_EQ(video->screenCaptureSwitch(), 1u);

  const auto sets = CallsAt(video->calls(), SimulatedCallKind::SetPropertyData,
                            kCMIOObjectSystemObject, kScreenCapture);
  ASSERT_EQ(sets.size(), 3u);
  EXPECT_EQ(UInt32Of(sets[0].data), 0u);
  EXPECT_EQ(UInt32Of(sets[1].data), 1u);
  EXPECT_EQ(UInt32Of(sets[2].data), 1u);
}

TEST_F(VideoPropertiesTest, FailedScreenCaptureSwitchIsLoggedAndListingGoesOn) {
  Fail(SimulatedCallKind::SetPropertyData, kCMIOObjectSystemObject,
       kCMIOHardwarePropertyAllowScreenCaptureDevices, -50);
  EXPECT_THAT(VideoDeviceConnectedDeviceIDs(), ElementsAre(kCamera));
  EXPECT_THAT(log.lines(),
              ElementsAre("Video Error -50: Unable to include screen capture devices"));
}

TEST_F(VideoPropertiesTest, FailedDeviceCountLogsTheExampleLine) {
  Fail(SimulatedCallKind::GetPropertyDataSize, kCMIOObjectSystemObject,
       kCMIOHardwarePropertyDevices, -50);
  EXPECT_THAT(VideoDeviceConnectedDeviceIDs(), IsEmpty());
  EXPECT_THAT(log.lines(), ElementsAre("Video Error -50: Unable to get device count"));
  EXPECT_THAT(CallsOfKind(video->calls(), SimulatedCallKind::GetPropertyData), IsEmpty());
}

// --- Device properties ---------------------------------------------------------------------------

TEST_F(VideoPropertiesTest, NullNameLogsUnknownErrorAndIsNil) {
  SimulatedVideoDevice camera = Camera();
  camera.name = std::nullopt;
  video->addDevice(camera);

  EXPECT_EQ(VideoDeviceNameForDeviceID(kCamera), std::nullopt);
  EXPECT_THAT(log.lines(),
              ElementsAre("Video Error (unknown error): Name for device with ID 33 is nil"));
}

TEST_F(VideoPropertiesTest, TransportCodesMapByTheVideoTable) {
  const std::pair<std::uint32_t, MediaDeviceTransportType> table[] = {
      {0x31333934, MediaDeviceTransportType::FireWire},
      {0x7468756E, MediaDeviceTransportType::Thunderbolt},
      {0x626C746E, MediaDeviceTransportType::BuiltIn},
      {0x76697274, MediaDeviceTransportType::Virtual},
      {0x75736220, MediaDeviceTransportType::USB},
      {0x68646D69, MediaDeviceTransportType::HDMI},
      {0x77726C73, MediaDeviceTransportType::Wireless},
      {0x64707274, MediaDeviceTransportType::DisplayPort},
      {0x6F746872, MediaDeviceTransportType::Other},
      {0x626C7565, MediaDeviceTransportType::Bluetooth},
      {0x6E74776B, MediaDeviceTransportType::Network},
      {0x65617662, MediaDeviceTransportType::AVB},
      {0x70636920, MediaDeviceTransportType::PCI},
      // Audio-only codes and zero are not video transports.
      {FourCharCode("airp"), MediaDeviceTransportType::Unknown},
      {FourCharCode("blea"), MediaDeviceTransportType::Unknown},
      {0, MediaDeviceTransportType::Unknown},
  };
  for (const auto& [code, expected] : table) {
    video->setProperty(kCamera, kTransport, SimulatedPropertyValue::UInt32(code), false);
    EXPECT_EQ(VideoDeviceTransportTypeForDeviceID(kCamera), expected) << FourCharCodeText(code);
  }
  const auto reads =
      CallsAt(video->calls(), SimulatedCallKind::GetPropertyData, kCamera, kTransport);
  ASSERT_FALSE(reads.empty());
  EXPECT_EQ(reads[0].dataSize, 4u);
}

TEST_F(VideoPropertiesTest, AggregateDeviceCodeYieldsUnknownNotAggregate) {
  video->setProperty(kCamera, kTransport, SimulatedPropertyValue::UInt32(0x67727570), false);
  EXPECT_EQ(VideoDeviceTransportTypeForDeviceID(kCamera), MediaDeviceTransportType::Unknown);
}

}  // namespace
}  // namespace harkwell
