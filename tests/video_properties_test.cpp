// The video property reads: the screen-capture switch before every listing, the calls each read
// makes, the video transport table, and the exact failure lines ("!obj" always silent).
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "HarkwellFoundation/Platform/PlatformString.h"
#include "HarkwellFoundation/Platform/VideoHardwareConstants.h"
#include "HarkwellFoundation/Video/VideoDeviceProperties.h"
#include "tests/support/LogCapture.h"
#include "tests/support/SimulatedServicesFixture.h"

namespace harkwell {
namespace {

using testing::CallsAt;
using testing::CallsOfKind;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using testing::LogCapture;
using ::testing::SizeIs;

constexpr ObjectID kCamera = 33;

constexpr PropertyAddress Global(std::uint32_t selector) {
  return {selector, kCMIOObjectPropertyScopeGlobal, kCMIOObjectPropertyElementMaster};
}

const PropertyAddress kDevices = Global(kCMIOHardwarePropertyDevices);
const PropertyAddress kScreenCapture = Global(kCMIOHardwarePropertyAllowScreenCaptureDevices);
const PropertyAddress kTransport = Global(kCMIODevicePropertyTransportType);
const PropertyAddress kRunning = Global(kCMIODevicePropertyDeviceIsRunningSomewhere);
const PropertyAddress kInputStreams{kCMIODevicePropertyStreams, kCMIODevicePropertyScopeInput,
                                    kCMIOObjectPropertyElementMaster};
const PropertyAddress kOutputStreams{kCMIODevicePropertyStreams, kCMIODevicePropertyScopeOutput,
                                     kCMIOObjectPropertyElementMaster};

SimulatedVideoDevice Camera(ObjectID id = kCamera) {
  return SimulatedVideoDevice{.deviceID = id,
                              .name = "FaceTime Camera",
                              .deviceUID = "cam-uid",
                              .modelUID = "cam-model",
                              .transportType = kVideoTransportTypeBuiltIn,
                              .inputStreamCount = 1,
                              .outputStreamCount = 0};
}

std::uint32_t UInt32Of(const std::vector<std::uint8_t>& bytes) {
  std::uint32_t value = 0;
  if (bytes.size() == sizeof value) std::memcpy(&value, bytes.data(), sizeof value);
  return value;
}

class VideoPropertiesTest : public testing::SimulatedServicesTest {
 protected:
  void SetUp() override {
    SimulatedServicesTest::SetUp();
    video->addDevice(Camera());
    video->clearCalls();
    liveStringsAtStart_ = PlatformStringLiveCount();
  }
  void TearDown() override {
    EXPECT_EQ(PlatformStringLiveCount(), liveStringsAtStart_);
    SimulatedServicesTest::TearDown();
  }

  void Fail(SimulatedCallKind kind, ObjectID object, std::uint32_t selector, OSStatus status,
            int count = -1) {
    video->addFailure(SimulatedFailure{
        .kind = kind, .object = object, .selector = selector, .status = status, .count = count});
  }

  LogCapture log;

 private:
  std::size_t liveStringsAtStart_ = 0;
};

// --- Log format
// ------------------------------------------------------------------------------------

TEST_F(VideoPropertiesTest, LogLineIsPrefixStatusInDecimalAndMessage) {
  VideoDeviceLogWithStatus(-50, "Unable to get device count");
  VideoDeviceLogWithStatus(std::nullopt, "Nothing");
  VideoDeviceLogWithStatus(kCMIOHardwareBadObjectError, "Gone");
  VideoDeviceLogWithStatus(kCMIOHardwareIllegalOperationError, "Refused");
  EXPECT_THAT(log.lines(), ElementsAre("Video Error -50: Unable to get device count",
                                       "Video Error (unknown error): Nothing",
                                       "Video Error 1852797029: Refused"));
}

// --- Device list
// -------------------------------------------------------------------------------------

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

TEST_F(VideoPropertiesTest, DeviceListOfSizeZeroIsStillReadWithSizeZero) {
  video->setDeviceList({});
  video->clearCalls();

  EXPECT_THAT(VideoDeviceConnectedDeviceIDs(), IsEmpty());
  const auto reads = CallsOfKind(video->calls(), SimulatedCallKind::GetPropertyData);
  ASSERT_EQ(reads.size(), 1u);
  EXPECT_EQ(reads[0].dataSize, 0u);
  EXPECT_EQ(reads[0].status, kNoErr);
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(VideoPropertiesTest, DeviceListOfTenBytesYieldsTwoIDs) {
  video->setProperty(kCMIOObjectSystemObject, kDevices,
                     SimulatedPropertyValue::IDList({40, 41, 42}).withReportedSize(10));
  video->clearCalls();

  EXPECT_THAT(VideoDeviceConnectedDeviceIDs(), ElementsAre(40u, 41u));
  const auto reads = CallsOfKind(video->calls(), SimulatedCallKind::GetPropertyData);
  ASSERT_EQ(reads.size(), 1u);
  EXPECT_EQ(reads[0].dataSize, 10u);
}

TEST_F(VideoPropertiesTest, FailedDeviceCountLogsTheExampleLine) {
  Fail(SimulatedCallKind::GetPropertyDataSize, kCMIOObjectSystemObject,
       kCMIOHardwarePropertyDevices, -50);
  EXPECT_THAT(VideoDeviceConnectedDeviceIDs(), IsEmpty());
  EXPECT_THAT(log.lines(), ElementsAre("Video Error -50: Unable to get device count"));
  EXPECT_THAT(CallsOfKind(video->calls(), SimulatedCallKind::GetPropertyData), IsEmpty());
}

TEST_F(VideoPropertiesTest, FailedDeviceIDReadLogsDeviceIDs) {
  Fail(SimulatedCallKind::GetPropertyData, kCMIOObjectSystemObject, kCMIOHardwarePropertyDevices,
       -50);
  EXPECT_THAT(VideoDeviceConnectedDeviceIDs(), IsEmpty());
  EXPECT_THAT(log.lines(), ElementsAre("Video Error -50: Unable to get device IDs"));
}

// --- Device properties
// -------------------------------------------------------------------------------

TEST_F(VideoPropertiesTest, StringPropertiesReadOneEightByteReference) {
  EXPECT_EQ(VideoDeviceNameForDeviceID(kCamera), "FaceTime Camera");
  EXPECT_EQ(VideoDeviceUIDForDeviceID(kCamera), "cam-uid");
  EXPECT_EQ(VideoDeviceModelUIDForDeviceID(kCamera), "cam-model");

  const auto calls = video->calls();
  ASSERT_EQ(calls.size(), 3u);
  const std::uint32_t selectors[] = {kCMIOObjectPropertyName, kCMIODevicePropertyDeviceUID,
                                     kCMIODevicePropertyModelUID};
  for (std::size_t i = 0; i < 3; ++i) {
    EXPECT_EQ(calls[i].kind, SimulatedCallKind::GetPropertyData);
    EXPECT_EQ(calls[i].object, kCamera);
    EXPECT_EQ(calls[i].address, Global(selectors[i]));
    EXPECT_EQ(calls[i].dataSize, 8u);
    EXPECT_EQ(calls[i].qualifierDataSize, 0u);
  }
}

TEST_F(VideoPropertiesTest, NullNameLogsUnknownErrorAndIsNil) {
  SimulatedVideoDevice camera = Camera();
  camera.name = std::nullopt;
  video->addDevice(camera);

  EXPECT_EQ(VideoDeviceNameForDeviceID(kCamera), std::nullopt);
  EXPECT_THAT(log.lines(),
              ElementsAre("Video Error (unknown error): Name for device with ID 33 is nil"));
}

TEST_F(VideoPropertiesTest, FailedStringReadsNameTheirProperty) {
  Fail(SimulatedCallKind::GetPropertyData, kCamera, kCMIOObjectPropertyName, -50);
  Fail(SimulatedCallKind::GetPropertyData, kCamera, kCMIODevicePropertyDeviceUID, -50);
  Fail(SimulatedCallKind::GetPropertyData, kCamera, kCMIODevicePropertyModelUID, -50);
  EXPECT_EQ(VideoDeviceNameForDeviceID(kCamera), std::nullopt);
  EXPECT_EQ(VideoDeviceUIDForDeviceID(kCamera), std::nullopt);
  EXPECT_EQ(VideoDeviceModelUIDForDeviceID(kCamera), std::nullopt);
  EXPECT_THAT(log.lines(),
              ElementsAre("Video Error -50: Unable to get Name of device with ID 33",
                          "Video Error -50: Unable to get Device UID of device with ID 33",
                          "Video Error -50: Unable to get Model UID of device with ID 33"));
}

TEST_F(VideoPropertiesTest, HostileNameIsReturnedByteForByte) {
  const std::string hostile = testing::HostileText();
  SimulatedVideoDevice camera = Camera();
  camera.name = hostile;
  video->addDevice(camera);
  EXPECT_EQ(VideoDeviceNameForDeviceID(kCamera), hostile);
  VideoDeviceLogWithStatus(std::nullopt, hostile);
  EXPECT_THAT(log.lines(), ElementsAre("Video Error (unknown error): " + hostile));
}

TEST_F(VideoPropertiesTest, StreamCountsAskOnlyTheDataSizeOfEachScope) {
  SimulatedVideoDevice camera = Camera();
  camera.inputStreamCount = 2;
  camera.outputStreamCount = 1;
  video->addDevice(camera);
  video->clearCalls();

  EXPECT_EQ(VideoDeviceInputChannelCountForDeviceID(kCamera), 2u);
  EXPECT_EQ(VideoDeviceOutputChannelCountForDeviceID(kCamera), 1u);
  const auto calls = video->calls();
  ASSERT_EQ(calls.size(), 2u);
  EXPECT_EQ(calls[0].kind, SimulatedCallKind::GetPropertyDataSize);
  EXPECT_EQ(calls[0].address, kInputStreams);
  EXPECT_EQ(calls[1].kind, SimulatedCallKind::GetPropertyDataSize);
  EXPECT_EQ(calls[1].address, kOutputStreams);
}

TEST_F(VideoPropertiesTest, FailedStreamCountsLogTheirDirection) {
  Fail(SimulatedCallKind::GetPropertyDataSize, kCamera, kCMIODevicePropertyStreams, -50, 1);
  EXPECT_EQ(VideoDeviceInputChannelCountForDeviceID(kCamera), std::nullopt);
  Fail(SimulatedCallKind::GetPropertyDataSize, kCamera, kCMIODevicePropertyStreams, -50, 1);
  EXPECT_EQ(VideoDeviceOutputChannelCountForDeviceID(kCamera), std::nullopt);
  EXPECT_THAT(log.lines(),
              ElementsAre("Video Error -50: Unable to get input streams of device with ID 33",
                          "Video Error -50: Unable to get output streams of device with ID 33"));
}

TEST_F(VideoPropertiesTest, RunningStateIsAFourByteValue) {
  EXPECT_EQ(VideoDeviceIsRunningForDeviceID(kCamera), false);
  video->setDeviceRunning(kCamera, true);
  EXPECT_EQ(VideoDeviceIsRunningForDeviceID(kCamera), true);
  const auto reads = CallsAt(video->calls(), SimulatedCallKind::GetPropertyData, kCamera, kRunning);
  ASSERT_EQ(reads.size(), 2u);
  EXPECT_EQ(reads[0].dataSize, 4u);

  Fail(SimulatedCallKind::GetPropertyData, kCamera, kCMIODevicePropertyDeviceIsRunningSomewhere,
       -50);
  EXPECT_EQ(VideoDeviceIsRunningForDeviceID(kCamera), std::nullopt);
  EXPECT_THAT(log.lines(),
              ElementsAre("Video Error -50: Unable to get running status of device with ID 33"));
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

TEST_F(VideoPropertiesTest, FailedTransportReadIsAbsent) {
  Fail(SimulatedCallKind::GetPropertyData, kCamera, kCMIODevicePropertyTransportType, -50);
  EXPECT_EQ(VideoDeviceTransportTypeForDeviceID(kCamera), std::nullopt);
  EXPECT_THAT(log.lines(),
              ElementsAre("Video Error -50: Unable to get transport type of device with ID 33"));
}

// Each read, run once against a service whose next call fails.
const std::vector<std::pair<const char*, std::function<void()>>>& EveryRead() {
  static const std::vector<std::pair<const char*, std::function<void()>>> reads = {
      {"name", [] { VideoDeviceNameForDeviceID(kCamera); }},
      {"uid", [] { VideoDeviceUIDForDeviceID(kCamera); }},
      {"model uid", [] { VideoDeviceModelUIDForDeviceID(kCamera); }},
      {"inputs", [] { VideoDeviceInputChannelCountForDeviceID(kCamera); }},
      {"outputs", [] { VideoDeviceOutputChannelCountForDeviceID(kCamera); }},
      {"running", [] { VideoDeviceIsRunningForDeviceID(kCamera); }},
      {"transport", [] { VideoDeviceTransportTypeForDeviceID(kCamera); }},
      {"list", [] { VideoDeviceConnectedDeviceIDs(); }},
  };
  return reads;
}

TEST_F(VideoPropertiesTest, BadObjectStatusFromAnyCallLogsNothing) {
  for (const auto& [name, read] : EveryRead()) {
    video->addFailure(SimulatedFailure{.status = kCMIOHardwareBadObjectError, .count = 1});
    read();
    EXPECT_THAT(log.lines(), IsEmpty()) << name;
    video->clearFailures();
  }
}

TEST_F(VideoPropertiesTest, AnyOtherStatusFromACallLogsExactlyOneLine) {
  for (const auto& [name, read] : EveryRead()) {
    log.clear();
    video->addFailure(SimulatedFailure{.status = -50, .count = 1});
    read();
    EXPECT_THAT(log.lines(), SizeIs(1)) << name;
    video->clearFailures();
  }
}

}  // namespace
}  // namespace harkwell
