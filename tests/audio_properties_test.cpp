// The audio property reads: the service calls they make (object, address, data sizes), the values
// they return, and the exact line each failure writes to the system log.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "HarkwellFoundation/Audio/AudioDeviceProperties.h"
#include "HarkwellFoundation/Platform/AudioHardwareConstants.h"
#include "HarkwellFoundation/Platform/PlatformString.h"
#include "tests/support/LogCapture.h"
#include "tests/support/SimulatedServicesFixture.h"

namespace harkwell {
namespace {

using testing::CallsAt;
using testing::CallsOfKind;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using testing::LogCapture;

constexpr ObjectID kMic = 73;

constexpr PropertyAddress Global(std::uint32_t selector) {
  return {selector, kAudioObjectPropertyScopeGlobal, kAudioObjectPropertyElementMaster};
}
constexpr PropertyAddress Input(std::uint32_t selector) {
  return {selector, kAudioObjectPropertyScopeInput, kAudioObjectPropertyElementMaster};
}
constexpr PropertyAddress Output(std::uint32_t selector) {
  return {selector, kAudioObjectPropertyScopeOutput, kAudioObjectPropertyElementMaster};
}

const PropertyAddress kDevices = Global(kAudioHardwarePropertyDevices);
const PropertyAddress kName = Global(kAudioObjectPropertyName);
const PropertyAddress kDataSource = Input(kAudioDevicePropertyDataSource);
const PropertyAddress kDataSourceName = Input(kAudioDevicePropertyDataSourceNameForIDCFString);
const PropertyAddress kRunning = Global(kAudioDevicePropertyDeviceIsRunningSomewhere);
const PropertyAddress kTransport = Global(kAudioDevicePropertyTransportType);

SimulatedAudioDevice Microphone(ObjectID id = kMic) {
  return SimulatedAudioDevice{
      .deviceID = id,
      .name = "Studio Microphone",
      .deviceUID = "mic-uid",
      .modelUID = "mic-model",
      .transportType = kAudioDeviceTransportTypeUSB,
      .inputStreamCount = 2,
      .outputStreamCount = 0,
      .isRunning = false,
      .selectedDataSource = 1,
      .dataSourceNames = {{1, "Internal Microphone"}, {2, "Line In"}},
  };
}

class AudioPropertiesTest : public testing::SimulatedServicesTest {
 protected:
  void SetUp() override {
    SimulatedServicesTest::SetUp();
    audio->addDevice(Microphone());
    audio->clearCalls();
    liveStringsAtStart_ = PlatformStringLiveCount();
  }
  void TearDown() override {
    // Every string reference a read received was released.
    EXPECT_EQ(PlatformStringLiveCount(), liveStringsAtStart_);
    SimulatedServicesTest::TearDown();
  }

  void Fail(SimulatedCallKind kind, ObjectID object, std::uint32_t selector, OSStatus status,
            std::optional<std::uint32_t> scope = std::nullopt) {
    audio->addFailure(SimulatedFailure{
        .kind = kind, .object = object, .selector = selector, .scope = scope, .status = status});
  }

  LogCapture log;

 private:
  std::size_t liveStringsAtStart_ = 0;
};

// --- Log format
// ------------------------------------------------------------------------------------

TEST_F(AudioPropertiesTest, LogLineIsPrefixStatusInDecimalAndMessage) {
  AudioDeviceLogWithStatus(-50, "Something failed");
  AudioDeviceLogWithStatus(std::nullopt, "No status");
  EXPECT_THAT(log.lines(), ElementsAre("Audio Error -50: Something failed",
                                       "Audio Error (unknown error): No status"));
}

TEST_F(AudioPropertiesTest, BadObjectStatusIsNeverLogged) {
  AudioDeviceLogWithStatus(kAudioHardwareBadObjectError, "Gone");
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(AudioPropertiesTest, PrintableFourCharacterStatusIsLoggedInDecimal) {
  Fail(SimulatedCallKind::GetPropertyDataSize, kAudioObjectSystemObject,
       kAudioHardwarePropertyDevices, kAudioHardwareIllegalOperationError);  // "nope"
  EXPECT_THAT(AudioDeviceConnectedDeviceIDs(), IsEmpty());
  EXPECT_THAT(log.lines(), ElementsAre("Audio Error 1852797029: Unable to get device count"));
}

// --- Device list
// -------------------------------------------------------------------------------------

TEST_F(AudioPropertiesTest, DeviceListIsASizeQueryThenAReadWithThatSize) {
  audio->addDevice(Microphone(74));
  audio->addDevice(Microphone(75));
  audio->clearCalls();

  EXPECT_THAT(AudioDeviceConnectedDeviceIDs(), ElementsAre(kMic, 74u, 75u));

  const auto calls = audio->calls();
  ASSERT_EQ(calls.size(), 2u);
  EXPECT_EQ(calls[0].kind, SimulatedCallKind::GetPropertyDataSize);
  EXPECT_EQ(calls[0].object, kAudioObjectSystemObject);
  EXPECT_EQ(calls[0].address, kDevices);
  EXPECT_EQ(calls[0].qualifierDataSize, 0u);
  EXPECT_EQ(calls[1].kind, SimulatedCallKind::GetPropertyData);
  EXPECT_EQ(calls[1].object, kAudioObjectSystemObject);
  EXPECT_EQ(calls[1].address, kDevices);
  EXPECT_EQ(calls[1].dataSize, 12u);
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(AudioPropertiesTest, DeviceListSizeNotAMultipleOfFourKeepsTheWholeIDs) {
  audio->setProperty(kAudioObjectSystemObject, kDevices,
                     SimulatedPropertyValue::IDList({5, 6, 7}).withReportedSize(10));
  audio->clearCalls();

  EXPECT_THAT(AudioDeviceConnectedDeviceIDs(), ElementsAre(5u, 6u));
  const auto reads = CallsOfKind(audio->calls(), SimulatedCallKind::GetPropertyData);
  ASSERT_EQ(reads.size(), 1u);
  EXPECT_EQ(reads[0].dataSize, 10u);
}

TEST_F(AudioPropertiesTest, EmptyDeviceListIsStillReadAndGivesNoIDs) {
  audio->setDeviceList({});
  audio->clearCalls();

  EXPECT_THAT(AudioDeviceConnectedDeviceIDs(), IsEmpty());
  const auto reads = CallsOfKind(audio->calls(), SimulatedCallKind::GetPropertyData);
  ASSERT_EQ(reads.size(), 1u);
  EXPECT_EQ(reads[0].dataSize, 0u);
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(AudioPropertiesTest, FailedDeviceCountLogsAndSkipsTheRead) {
  Fail(SimulatedCallKind::GetPropertyDataSize, kAudioObjectSystemObject,
       kAudioHardwarePropertyDevices, -50);
  EXPECT_THAT(AudioDeviceConnectedDeviceIDs(), IsEmpty());
  EXPECT_THAT(log.lines(), ElementsAre("Audio Error -50: Unable to get device count"));
  EXPECT_THAT(CallsOfKind(audio->calls(), SimulatedCallKind::GetPropertyData), IsEmpty());
}

TEST_F(AudioPropertiesTest, FailedDeviceIDReadLogsAndGivesNoIDs) {
  Fail(SimulatedCallKind::GetPropertyData, kAudioObjectSystemObject, kAudioHardwarePropertyDevices,
       -50);
  EXPECT_THAT(AudioDeviceConnectedDeviceIDs(), IsEmpty());
  EXPECT_THAT(log.lines(), ElementsAre("Audio Error -50: Unable to get device IDs"));
}

// --- String properties
// -----------------------------------------------------------------------------

TEST_F(AudioPropertiesTest, StringPropertiesReadOneEightByteReference) {
  EXPECT_EQ(AudioDeviceNameForDeviceID(kMic), "Studio Microphone");
  EXPECT_EQ(AudioDeviceUIDForDeviceID(kMic), "mic-uid");
  EXPECT_EQ(AudioDeviceModelUIDForDeviceID(kMic), "mic-model");

  const auto calls = audio->calls();
  ASSERT_EQ(calls.size(), 3u);
  const std::uint32_t selectors[] = {kAudioObjectPropertyName, kAudioDevicePropertyDeviceUID,
                                     kAudioDevicePropertyModelUID};
  for (std::size_t i = 0; i < 3; ++i) {
    EXPECT_EQ(calls[i].kind, SimulatedCallKind::GetPropertyData);
    EXPECT_EQ(calls[i].object, kMic);
    EXPECT_EQ(calls[i].address, Global(selectors[i]));
    EXPECT_EQ(calls[i].qualifierDataSize, 0u);
    EXPECT_EQ(calls[i].dataSize, 8u);
  }
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(AudioPropertiesTest, FailedNameReadLogsTheExampleLine) {
  Fail(SimulatedCallKind::GetPropertyData, kMic, kAudioObjectPropertyName, -50);
  EXPECT_EQ(AudioDeviceNameForDeviceID(kMic), std::nullopt);
  EXPECT_THAT(log.lines(), ElementsAre("Audio Error -50: Unable to get Name of device with ID 73"));
}

TEST_F(AudioPropertiesTest, FailedUIDReadsNameTheirProperty) {
  Fail(SimulatedCallKind::GetPropertyData, kMic, kAudioDevicePropertyDeviceUID, -50);
  Fail(SimulatedCallKind::GetPropertyData, kMic, kAudioDevicePropertyModelUID, -10);
  EXPECT_EQ(AudioDeviceUIDForDeviceID(kMic), std::nullopt);
  EXPECT_EQ(AudioDeviceModelUIDForDeviceID(kMic), std::nullopt);
  EXPECT_THAT(log.lines(),
              ElementsAre("Audio Error -50: Unable to get Device UID of device with ID 73",
                          "Audio Error -10: Unable to get Model UID of device with ID 73"));
}

TEST_F(AudioPropertiesTest, NullStringReferenceLogsIsNilWithUnknownError) {
  SimulatedAudioDevice device = Microphone(80);
  device.name = std::nullopt;
  device.deviceUID = std::nullopt;
  device.modelUID = std::nullopt;
  audio->addDevice(device);

  EXPECT_EQ(AudioDeviceNameForDeviceID(80), std::nullopt);
  EXPECT_EQ(AudioDeviceUIDForDeviceID(80), std::nullopt);
  EXPECT_EQ(AudioDeviceModelUIDForDeviceID(80), std::nullopt);
  EXPECT_THAT(log.lines(),
              ElementsAre("Audio Error (unknown error): Name for device with ID 80 is nil",
                          "Audio Error (unknown error): Device UID for device with ID 80 is nil",
                          "Audio Error (unknown error): Model UID for device with ID 80 is nil"));
}

TEST_F(AudioPropertiesTest, EmptyNameIsAValueNotAFailure) {
  SimulatedAudioDevice device = Microphone(80);
  device.name = "";
  audio->addDevice(device);
  EXPECT_EQ(AudioDeviceNameForDeviceID(80), "");
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(AudioPropertiesTest, HostileNameIsReturnedByteForByteAndReleased) {
  const std::string hostile = testing::HostileText();
  SimulatedAudioDevice device = Microphone(80);
  device.name = hostile;
  device.dataSourceNames = {{1, hostile}};
  audio->addDevice(device);

  EXPECT_EQ(AudioDeviceNameForDeviceID(80), hostile);
  EXPECT_EQ(AudioDeviceSelectedInputSourceNameForDeviceID(80), hostile);
  // A line that carries such text reaches the sink unaltered.
  AudioDeviceLogWithStatus(-50, hostile);
  EXPECT_THAT(log.lines(), ElementsAre("Audio Error -50: " + hostile));
}

// --- Gone devices
// ----------------------------------------------------------------------------------

TEST_F(AudioPropertiesTest, GoneDeviceYieldsAbsentValuesAndNoLogLine) {
  audio->removeDevice(kMic);

  EXPECT_EQ(AudioDeviceNameForDeviceID(kMic), std::nullopt);
  EXPECT_EQ(AudioDeviceUIDForDeviceID(kMic), std::nullopt);
  EXPECT_EQ(AudioDeviceModelUIDForDeviceID(kMic), std::nullopt);
  EXPECT_EQ(AudioDeviceSelectedInputSourceNameForDeviceID(kMic), std::nullopt);
  EXPECT_EQ(AudioDeviceInputChannelCountForDeviceID(kMic), std::nullopt);
  EXPECT_EQ(AudioDeviceOutputChannelCountForDeviceID(kMic), std::nullopt);
  EXPECT_EQ(AudioDeviceIsRunningForDeviceID(kMic), std::nullopt);
  EXPECT_EQ(AudioDeviceTransportTypeForDeviceID(kMic), std::nullopt);
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(AudioPropertiesTest, BadObjectFailureOfTheDeviceListIsSilent) {
  Fail(SimulatedCallKind::GetPropertyData, kAudioObjectSystemObject, kAudioHardwarePropertyDevices,
       kAudioHardwareBadObjectError);
  EXPECT_THAT(AudioDeviceConnectedDeviceIDs(), IsEmpty());
  EXPECT_THAT(log.lines(), IsEmpty());
}

// --- Selected input source
// -------------------------------------------------------------------------

TEST_F(AudioPropertiesTest, InputSourceNameIsTranslatedThroughA28ByteRecord) {
  EXPECT_EQ(AudioDeviceSelectedInputSourceNameForDeviceID(kMic), "Internal Microphone");

  const auto calls = audio->calls();
  ASSERT_EQ(calls.size(), 4u);
  EXPECT_EQ(calls[0].kind, SimulatedCallKind::HasProperty);
  EXPECT_EQ(calls[0].address, kDataSource);
  EXPECT_EQ(calls[1].kind, SimulatedCallKind::HasProperty);
  EXPECT_EQ(calls[1].address, kDataSourceName);
  EXPECT_EQ(calls[2].kind, SimulatedCallKind::GetPropertyData);
  EXPECT_EQ(calls[2].address, kDataSource);
  EXPECT_EQ(calls[2].dataSize, 4u);
  EXPECT_EQ(calls[3].kind, SimulatedCallKind::GetPropertyData);
  EXPECT_EQ(calls[3].address, kDataSourceName);
  EXPECT_EQ(calls[3].dataSize, kAudioValueTranslationDataSize);
  EXPECT_EQ(calls[3].dataSize, 28u);
  for (const auto& call : calls) {
    EXPECT_EQ(call.object, kMic);
    EXPECT_EQ(call.qualifierDataSize, 0u);
  }

  audio->setSelectedDataSource(kMic, 2);
  EXPECT_EQ(AudioDeviceSelectedInputSourceNameForDeviceID(kMic), "Line In");
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(AudioPropertiesTest, DeviceWithoutDataSourceHasNoInputSourceNameAndNoLogLine) {
  SimulatedAudioDevice device = Microphone(80);
  device.selectedDataSource = std::nullopt;
  audio->addDevice(device);
  audio->clearCalls();

  EXPECT_EQ(AudioDeviceSelectedInputSourceNameForDeviceID(80), std::nullopt);
  EXPECT_THAT(log.lines(), IsEmpty());
  const auto calls = audio->calls();
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_EQ(calls[0].kind, SimulatedCallKind::HasProperty);
  EXPECT_EQ(calls[0].address, kDataSource);
}

TEST_F(AudioPropertiesTest, DeviceWithoutSourceNamesHasNoInputSourceNameAndNoLogLine) {
  audio->removeProperty(kMic, kDataSourceName);

  EXPECT_EQ(AudioDeviceSelectedInputSourceNameForDeviceID(kMic), std::nullopt);
  EXPECT_THAT(log.lines(), IsEmpty());
  EXPECT_EQ(CallsOfKind(audio->calls(), SimulatedCallKind::HasProperty).size(), 2u);
  EXPECT_THAT(CallsOfKind(audio->calls(), SimulatedCallKind::GetPropertyData), IsEmpty());
}

TEST_F(AudioPropertiesTest, FailedSourceReadLogsDefaultSource) {
  Fail(SimulatedCallKind::GetPropertyData, kMic, kAudioDevicePropertyDataSource, -50);
  EXPECT_EQ(AudioDeviceSelectedInputSourceNameForDeviceID(kMic), std::nullopt);
  EXPECT_THAT(log.lines(),
              ElementsAre("Audio Error -50: Unable to get default source of device with ID 73"));
  // The name is not asked for without a source.
  EXPECT_THAT(CallsAt(audio->calls(), SimulatedCallKind::GetPropertyData, kMic, kDataSourceName),
              IsEmpty());
}

TEST_F(AudioPropertiesTest, FailedSourceNameReadLogsDefaultSourceName) {
  Fail(SimulatedCallKind::GetPropertyData, kMic, kAudioDevicePropertyDataSourceNameForIDCFString,
       -50);
  EXPECT_EQ(AudioDeviceSelectedInputSourceNameForDeviceID(kMic), std::nullopt);
  EXPECT_THAT(log.lines(), ElementsAre("Audio Error -50: Unable to get default source name of "
                                       "device with ID 73"));
}

TEST_F(AudioPropertiesTest, SourceWithoutANameLogsIsNil) {
  SimulatedAudioDevice device = Microphone(80);
  device.dataSourceNames = {{1, std::nullopt}};
  audio->addDevice(device);

  EXPECT_EQ(AudioDeviceSelectedInputSourceNameForDeviceID(80), std::nullopt);
  EXPECT_THAT(log.lines(), ElementsAre("Audio Error (unknown error): Name for default source of "
                                       "device with ID 80 is nil"));
}

// --- Stream counts
// ---------------------------------------------------------------------------------

TEST_F(AudioPropertiesTest, StreamCountsAskOnlyTheDataSize) {
  EXPECT_EQ(AudioDeviceInputChannelCountForDeviceID(kMic), 2u);
  EXPECT_EQ(AudioDeviceOutputChannelCountForDeviceID(kMic), 0u);

  const auto calls = audio->calls();
  ASSERT_EQ(calls.size(), 2u);
  EXPECT_EQ(calls[0].kind, SimulatedCallKind::GetPropertyDataSize);
  EXPECT_EQ(calls[0].address, Input(kAudioDevicePropertyStreams));
  EXPECT_EQ(calls[1].kind, SimulatedCallKind::GetPropertyDataSize);
  EXPECT_EQ(calls[1].address, Output(kAudioDevicePropertyStreams));
}

TEST_F(AudioPropertiesTest, StreamListOfSixBytesCountsOneAndZeroBytesCountsZero) {
  audio->setProperty(kMic, Input(kAudioDevicePropertyStreams),
                     SimulatedPropertyValue::IDList({1, 2}).withReportedSize(6));
  audio->setProperty(kMic, Output(kAudioDevicePropertyStreams), SimulatedPropertyValue::IDList({}));
  EXPECT_EQ(AudioDeviceInputChannelCountForDeviceID(kMic), 1u);
  const auto outputs = AudioDeviceOutputChannelCountForDeviceID(kMic);
  ASSERT_TRUE(outputs.has_value());
  EXPECT_EQ(*outputs, 0u);
}

TEST_F(AudioPropertiesTest, FailedStreamCountsLogTheirDirection) {
  Fail(SimulatedCallKind::GetPropertyDataSize, kMic, kAudioDevicePropertyStreams, -50,
       kAudioObjectPropertyScopeInput);
  Fail(SimulatedCallKind::GetPropertyDataSize, kMic, kAudioDevicePropertyStreams, -51,
       kAudioObjectPropertyScopeOutput);
  EXPECT_EQ(AudioDeviceInputChannelCountForDeviceID(kMic), std::nullopt);
  EXPECT_EQ(AudioDeviceOutputChannelCountForDeviceID(kMic), std::nullopt);
  EXPECT_THAT(log.lines(),
              ElementsAre("Audio Error -50: Unable to get input streams of device with ID 73",
                          "Audio Error -51: Unable to get output streams of device with ID 73"));
}

// --- Running state
// ---------------------------------------------------------------------------------

TEST_F(AudioPropertiesTest, RunningStateIsAnyNonZeroValue) {
  EXPECT_EQ(AudioDeviceIsRunningForDeviceID(kMic), false);
  audio->setProperty(kMic, kRunning, SimulatedPropertyValue::UInt32(7), false);
  EXPECT_EQ(AudioDeviceIsRunningForDeviceID(kMic), true);

  const auto reads = CallsAt(audio->calls(), SimulatedCallKind::GetPropertyData, kMic, kRunning);
  ASSERT_EQ(reads.size(), 2u);
  EXPECT_EQ(reads[0].dataSize, 4u);
}

TEST_F(AudioPropertiesTest, FailedRunningStateReadLogsRunningStatus) {
  Fail(SimulatedCallKind::GetPropertyData, kMic, kAudioDevicePropertyDeviceIsRunningSomewhere, -50);
  EXPECT_EQ(AudioDeviceIsRunningForDeviceID(kMic), std::nullopt);
  EXPECT_THAT(log.lines(),
              ElementsAre("Audio Error -50: Unable to get running status of device with ID 73"));
}

// --- Transport type
// --------------------------------------------------------------------------------

TEST_F(AudioPropertiesTest, TransportCodesMapByTheAudioTable) {
  const std::pair<std::uint32_t, MediaDeviceTransportType> table[] = {
      {FourCharCode("grup"), MediaDeviceTransportType::Aggregate},
      {FourCharCode("airp"), MediaDeviceTransportType::AirPlay},
      {FourCharCode("eavb"), MediaDeviceTransportType::AVB},
      {FourCharCode("blue"), MediaDeviceTransportType::Bluetooth},
      {FourCharCode("blea"), MediaDeviceTransportType::BluetoothLE},
      {FourCharCode("bltn"), MediaDeviceTransportType::BuiltIn},
      {FourCharCode("dprt"), MediaDeviceTransportType::DisplayPort},
      {FourCharCode("1394"), MediaDeviceTransportType::FireWire},
      {FourCharCode("hdmi"), MediaDeviceTransportType::HDMI},
      {FourCharCode("pci "), MediaDeviceTransportType::PCI},
      {FourCharCode("thun"), MediaDeviceTransportType::Thunderbolt},
      {FourCharCode("usb "), MediaDeviceTransportType::USB},
      {FourCharCode("virt"), MediaDeviceTransportType::Virtual},
      // Codes only cameras use are not audio transports.
      {FourCharCode("ntwk"), MediaDeviceTransportType::Unknown},
      {FourCharCode("wrls"), MediaDeviceTransportType::Unknown},
      {FourCharCode("othr"), MediaDeviceTransportType::Unknown},
  };
  for (const auto& [code, expected] : table) {
    audio->setProperty(kMic, kTransport, SimulatedPropertyValue::UInt32(code), false);
    EXPECT_EQ(AudioDeviceTransportTypeForDeviceID(kMic), expected) << FourCharCodeText(code);
  }
  const auto reads = CallsAt(audio->calls(), SimulatedCallKind::GetPropertyData, kMic, kTransport);
  ASSERT_FALSE(reads.empty());
  EXPECT_EQ(reads[0].dataSize, 4u);
}

TEST_F(AudioPropertiesTest, AutoAggregateAndUnknownTransportMapToUnknown) {
  audio->setProperty(kMic, kTransport,
                     SimulatedPropertyValue::UInt32(kAudioDeviceTransportTypeAutoAggregate), false);
  EXPECT_EQ(AudioDeviceTransportTypeForDeviceID(kMic), MediaDeviceTransportType::Unknown);
  audio->setProperty(kMic, kTransport,
                     SimulatedPropertyValue::UInt32(kAudioDeviceTransportTypeUnknown), false);
  EXPECT_EQ(AudioDeviceTransportTypeForDeviceID(kMic), MediaDeviceTransportType::Unknown);
}

TEST_F(AudioPropertiesTest, FailedTransportReadIsAbsentNotUnknown) {
  Fail(SimulatedCallKind::GetPropertyData, kMic, kAudioDevicePropertyTransportType, -50);
  EXPECT_EQ(AudioDeviceTransportTypeForDeviceID(kMic), std::nullopt);
  EXPECT_THAT(log.lines(),
              ElementsAre("Audio Error -50: Unable to get transport type of device with ID 73"));
}

}  // namespace
}  // namespace harkwell
