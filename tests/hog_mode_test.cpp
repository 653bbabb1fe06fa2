// Exclusive access: MediaDeviceHogMode from a pid, the read and toggle functions of both media
// types, and MediaDevice's enable / current / disable, row by row of their decision tables. Whether
// an operation wrote to the device is read from the service's call record.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <sstream>

#include "HarkwellFoundation/Model/MediaDevice.h"
#include "HarkwellFoundation/Model/MediaDeviceHogMode.h"
#include "HarkwellFoundation/Platform/AudioHardwareConstants.h"
#include "HarkwellFoundation/Platform/VideoHardwareConstants.h"
#include "tests/support/LogCapture.h"
#include "tests/support/SimulatedServicesFixture.h"

namespace harkwell {
namespace {

using testing::CallsOfKind;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using testing::LogCapture;

constexpr ObjectID kDevice = 5;
constexpr std::int32_t kFree = -1;
constexpr std::int32_t kOtherPID = 4242;

// --- MediaDeviceHogMode --------------------------------------------------------------------------

TEST(MediaDeviceHogModeValue, PidMinusOneIsNoProcess) {
  EXPECT_EQ(MediaDeviceHogMode(-1), MediaDeviceHogMode::NoProcess());
  EXPECT_EQ(MediaDeviceHogMode(-1).otherProcessPID(), std::nullopt);
}

TEST(MediaDeviceHogModeValue, OwnPidIsCurrentProcess) {
  EXPECT_EQ(MediaDeviceHogMode(getpid()), MediaDeviceHogMode::CurrentProcess());
}

TEST(MediaDeviceHogModeValue, PidZeroIsOtherProcessZero) {
  const MediaDeviceHogMode mode(0);
  EXPECT_EQ(mode.kind(), MediaDeviceHogMode::Kind::OtherProcess);
  EXPECT_EQ(mode, MediaDeviceHogMode::OtherProcess(0));
  EXPECT_EQ(mode.otherProcessPID(), 0);
}

TEST(MediaDeviceHogModeValue, OtherProcessEqualityComparesThePid) {
  EXPECT_EQ(MediaDeviceHogMode::OtherProcess(12), MediaDeviceHogMode::OtherProcess(12));
  EXPECT_NE(MediaDeviceHogMode::OtherProcess(12), MediaDeviceHogMode::OtherProcess(13));
  EXPECT_NE(MediaDeviceHogMode::OtherProcess(12), MediaDeviceHogMode::CurrentProcess());
  EXPECT_NE(MediaDeviceHogMode::OtherProcess(12), MediaDeviceHogMode::NoProcess());
  EXPECT_NE(MediaDeviceHogMode::CurrentProcess(), MediaDeviceHogMode::NoProcess());
  EXPECT_EQ(MediaDeviceHogMode::NoProcess(), MediaDeviceHogMode::NoProcess());
}

TEST(MediaDeviceHogModeValue, PrintsItsCase) {
  std::ostringstream out;
  out << MediaDeviceHogMode::NoProcess() << ' ' << MediaDeviceHogMode::CurrentProcess() << ' '
      << MediaDeviceHogMode::OtherProcess(12);
  EXPECT_EQ(out.str(), "NoProcess CurrentProcess OtherProcess(pid: 12)");
}

// --- Per media type ------------------------------------------------------------------------------

class HogModeTest : public testing::SimulatedServicesTest,
                    public ::testing::WithParamInterface<MediaType> {
 protected:
  void SetUp() override {
    SimulatedServicesTest::SetUp();
    if (isAudio()) {
      audio->addDevice(SimulatedAudioDevice{.deviceID = kDevice, .name = "Mic", .deviceUID = "m"});
    } else {
      video->addDevice(SimulatedVideoDevice{.deviceID = kDevice, .name = "Cam", .deviceUID = "c"});
    }
    graph().clearCalls();
  }

  bool isAudio() const { return GetParam() == MediaType::Audio; }
  SimulatedObjectGraph& graph() const {
    return isAudio() ? static_cast<SimulatedObjectGraph&>(*audio)
                     : static_cast<SimulatedObjectGraph&>(*video);
  }
  std::string prefix() const { return isAudio() ? "Audio Error " : "Video Error "; }
  PropertyAddress hogModeAddress() const {
    return isAudio() ? PropertyAddress{kAudioDevicePropertyHogMode, kAudioObjectPropertyScopeGlobal,
                                       kAudioObjectPropertyElementMaster}
                     : PropertyAddress{kCMIODevicePropertyHogMode, kCMIOObjectPropertyScopeGlobal,
                                       kCMIOObjectPropertyElementMaster};
  }
  MediaDevice device() const { return MediaDevice{.deviceID = kDevice, .mediaType = GetParam()}; }

  std::optional<MediaDeviceHogMode> read() const {
    return isAudio() ? AudioDeviceHogModeForDeviceID(kDevice)
                     : VideoDeviceHogModeForDeviceID(kDevice);
  }
  bool toggle() const {
    return isAudio() ? AudioDeviceToggleHogModeForDeviceID(kDevice)
                     : VideoDeviceToggleHogModeForDeviceID(kDevice);
  }

  void setOwner(std::int32_t pid) {
    graph().setProperty(kDevice, hogModeAddress(), SimulatedPropertyValue::Int32(pid), false);
  }
  std::int32_t owner() const { return *graph().property(kDevice, hogModeAddress())->asInt32(); }
  void failReads(OSStatus status = -50) {
    graph().addFailure(SimulatedFailure{.kind = SimulatedCallKind::GetPropertyData,
                                        .selector = FourCharCode("oink"),
                                        .status = status});
  }
  void failWrites(OSStatus status = -50) {
    graph().addFailure(SimulatedFailure{.kind = SimulatedCallKind::SetPropertyData,
                                        .selector = FourCharCode("oink"),
                                        .status = status});
  }
  std::size_t writes() const {
    return CallsOfKind(graph().calls(), SimulatedCallKind::SetPropertyData).size();
  }

  LogCapture log;
};

INSTANTIATE_TEST_SUITE_P(BothMediaTypes, HogModeTest,
                         ::testing::Values(MediaType::Audio, MediaType::Video),
                         [](const auto& paramInfo) {
                           return std::string(caseName(paramInfo.param));
                         });

TEST_P(HogModeTest, ReadIsOneFourByteValueWithoutQualifier) {
  setOwner(kFree);
  EXPECT_EQ(read(), MediaDeviceHogMode::NoProcess());
  setOwner(getpid());
  EXPECT_EQ(read(), MediaDeviceHogMode::CurrentProcess());
  setOwner(0);
  EXPECT_EQ(read(), MediaDeviceHogMode::OtherProcess(0));
  setOwner(kOtherPID);
  EXPECT_EQ(read(), MediaDeviceHogMode::OtherProcess(kOtherPID));

  const auto reads = CallsOfKind(graph().calls(), SimulatedCallKind::GetPropertyData);
  ASSERT_EQ(reads.size(), 4u);
  for (const auto& call : reads) {
    EXPECT_EQ(call.object, kDevice);
    EXPECT_EQ(call.address, hogModeAddress());
    EXPECT_EQ(call.dataSize, 4u);
    EXPECT_EQ(call.qualifierDataSize, 0u);
  }
}

TEST_P(HogModeTest, FailedReadIsAbsentAndLogged) {
  failReads();
  EXPECT_EQ(read(), std::nullopt);
  EXPECT_THAT(log.lines(),
              ElementsAre(prefix() + "-50: Unable to get hog mode PID of device with ID 5"));
}

TEST_P(HogModeTest, ReadOfAGoneDeviceIsAbsentAndSilent) {
  failReads(kAudioHardwareBadObjectError);
  EXPECT_EQ(read(), std::nullopt);
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_P(HogModeTest, ToggleWritesAFourByteZeroAndTakesAFreeDevice) {
  setOwner(kFree);
  EXPECT_TRUE(toggle());
  EXPECT_EQ(owner(), getpid());

  const auto sets = CallsOfKind(graph().calls(), SimulatedCallKind::SetPropertyData);
  ASSERT_EQ(sets.size(), 1u);
  EXPECT_EQ(sets[0].object, kDevice);
  EXPECT_EQ(sets[0].address, hogModeAddress());
  EXPECT_EQ(sets[0].dataSize, 4u);
  EXPECT_EQ(sets[0].qualifierDataSize, 0u);
  std::int32_t written = -7;
  ASSERT_EQ(sets[0].data.size(), sizeof written);
  std::memcpy(&written, sets[0].data.data(), sizeof written);
  EXPECT_EQ(written, 0);
}

TEST_P(HogModeTest, ToggleReleasesADeviceThisProcessHolds) {
  setOwner(getpid());
  EXPECT_FALSE(toggle());
  EXPECT_EQ(owner(), kFree);
}

TEST_P(HogModeTest, ToggleLeavesADeviceAnotherProcessHolds) {
  setOwner(kOtherPID);
  EXPECT_FALSE(toggle());
  EXPECT_EQ(owner(), kOtherPID);
}

TEST_P(HogModeTest, FailedToggleReturnsFalseAndLogs) {
  setOwner(kFree);
  failWrites();
  EXPECT_FALSE(toggle());
  EXPECT_EQ(owner(), kFree);
  EXPECT_THAT(log.lines(),
              ElementsAre(prefix() + "-50: Unable to set hog mode PID of device with ID 5"));
}

TEST_P(HogModeTest, ToggleOfAGoneDeviceIsFalseAndSilent) {
  failWrites(kAudioHardwareBadObjectError);
  EXPECT_FALSE(toggle());
  EXPECT_THAT(log.lines(), IsEmpty());
}

// enableHogMode(), one test per row.

TEST_P(HogModeTest, EnableOnUnreadableStateTogglesAndReturnsItsResult) {
  setOwner(kFree);
  failReads();
  EXPECT_TRUE(device().enableHogMode());
  EXPECT_EQ(writes(), 1u);
  EXPECT_EQ(owner(), getpid());
}

TEST_P(HogModeTest, EnableOnUnreadableStateOfAHeldDeviceTogglesAndFails) {
  setOwner(kOtherPID);
  failReads();
  EXPECT_FALSE(device().enableHogMode());
  EXPECT_EQ(writes(), 1u);
  EXPECT_EQ(owner(), kOtherPID);
}

TEST_P(HogModeTest, EnableOnAFreeDeviceTogglesAndTakesIt) {
  setOwner(kFree);
  EXPECT_TRUE(device().enableHogMode());
  EXPECT_EQ(writes(), 1u);
  EXPECT_EQ(owner(), getpid());
}

TEST_P(HogModeTest, EnableOnAFreeDeviceReturnsFalseWhenTheToggleFails) {
  setOwner(kFree);
  failWrites();
  EXPECT_FALSE(device().enableHogMode());
  EXPECT_EQ(writes(), 1u);
}

TEST_P(HogModeTest, EnableOnADeviceThisProcessHoldsIsTrueAndWritesNothing) {
  setOwner(getpid());
  EXPECT_TRUE(device().enableHogMode());
  EXPECT_EQ(writes(), 0u);
  EXPECT_EQ(owner(), getpid());
}

TEST_P(HogModeTest, EnableOnADeviceHeldByAnotherProcessIsFalseAndWritesNothing) {
  setOwner(kOtherPID);
  EXPECT_FALSE(device().enableHogMode());
  EXPECT_EQ(writes(), 0u);
  EXPECT_EQ(owner(), kOtherPID);
}

// disableHogMode(), one test per row.

TEST_P(HogModeTest, DisableOnUnreadableStateIsTrueAndWritesNothing) {
  setOwner(getpid());
  failReads();
  EXPECT_TRUE(device().disableHogMode());
  EXPECT_EQ(writes(), 0u);
  EXPECT_EQ(owner(), getpid());
}

TEST_P(HogModeTest, DisableOnAFreeDeviceIsTrueAndWritesNothing) {
  setOwner(kFree);
  EXPECT_TRUE(device().disableHogMode());
  EXPECT_EQ(writes(), 0u);
}

TEST_P(HogModeTest, DisableOnADeviceThisProcessHoldsTogglesAndReleasesIt) {
  setOwner(getpid());
  EXPECT_TRUE(device().disableHogMode());
  EXPECT_EQ(writes(), 1u);
  EXPECT_EQ(owner(), kFree);
}

TEST_P(HogModeTest, DisableReturnsFalseWhenTheToggleLeavesThisProcessHolding) {
  setOwner(getpid());
  // Between the read and the write the device is released, so the write takes it again.
  graph().setCallHook([this](const SimulatedCall& call) {
    if (call.kind == SimulatedCallKind::SetPropertyData) setOwner(kFree);
  });
  EXPECT_FALSE(device().disableHogMode());
  graph().setCallHook(nullptr);
  EXPECT_EQ(owner(), getpid());
}

TEST_P(HogModeTest, DisableNegatesAFailedToggle) {
  // A failed write leaves 0 in the value, which is not this process: the negation is true.
  setOwner(getpid());
  failWrites();
  EXPECT_TRUE(device().disableHogMode());
  EXPECT_EQ(writes(), 1u);
  EXPECT_EQ(owner(), getpid());
}

TEST_P(HogModeTest, DisableOnADeviceHeldByAnotherProcessIsFalseAndWritesNothing) {
  setOwner(kOtherPID);
  EXPECT_FALSE(device().disableHogMode());
  EXPECT_EQ(writes(), 0u);
}

TEST_P(HogModeTest, CurrentHogModeReadsTheDevice) {
  setOwner(kOtherPID);
  EXPECT_EQ(device().currentHogMode(), MediaDeviceHogMode::OtherProcess(kOtherPID));
  setOwner(getpid());
  EXPECT_EQ(device().currentHogMode(), MediaDeviceHogMode::CurrentProcess());
  EXPECT_EQ(writes(), 0u);
}

TEST_P(HogModeTest, CurrentHogModeOfAnUnreadableStateIsNoProcess) {
  setOwner(kOtherPID);
  failReads();
  EXPECT_EQ(device().currentHogMode(), MediaDeviceHogMode::NoProcess());
}

// The record's media type picks the service.
using HogModeServicesTest = testing::SimulatedServicesTest;

TEST_F(HogModeServicesTest, HogModeUsesTheServiceOfTheRecordsMediaType) {
  audio->addDevice(SimulatedAudioDevice{.deviceID = kDevice, .hogModePID = kOtherPID});
  video->addDevice(SimulatedVideoDevice{.deviceID = kDevice, .hogModePID = kFree});
  EXPECT_EQ((MediaDevice{.deviceID = kDevice, .mediaType = MediaType::Audio}.currentHogMode()),
            MediaDeviceHogMode::OtherProcess(kOtherPID));
  EXPECT_EQ((MediaDevice{.deviceID = kDevice, .mediaType = MediaType::Video}.currentHogMode()),
            MediaDeviceHogMode::NoProcess());
}

}  // namespace
}  // namespace harkwell
